# Warnings for the project's own targets only (never for GoogleTest or peers).
# ZK3_WERROR is on in every preset and in CI; whoever builds the library with
# another compiler, whose new warnings we have not seen, may turn it off.
option(ZK3_WERROR "Treat the project's warnings as errors" ON)
function(zk3_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra $<$<BOOL:${ZK3_WERROR}>:-Werror>)
endfunction()
