# Warnings for the project's own targets only (never for GoogleTest or peers).
function(zk3_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()
