# Static checks of the library's sources with clang's tools. They do not
# depend on the ABI or the sanitizers, so they run once, in x86_64 builds
# without sanitizers. A missing tool is reported as a skipped test, not a
# passed one: scripts/setup.sh installs both.
if(CMAKE_SIZEOF_VOID_P EQUAL 8 AND NOT ZK3_SANITIZE)
  find_program(ZK3_CLANGXX NAMES clang++ clang++-14)
  find_program(ZK3_CLANG_TIDY NAMES clang-tidy clang-tidy-14)

  function(zk3_add_lint name tool)
    if(tool)
      add_test(NAME lint.${name} COMMAND bash ${ARGN})
    else()
      add_test(NAME lint.${name} COMMAND bash -c "echo 'tool not found: run scripts/setup.sh'; exit 77")
      set_tests_properties(lint.${name} PROPERTIES SKIP_RETURN_CODE 77)
    endif()
    set_tests_properties(lint.${name} PROPERTIES LABELS "lint" TIMEOUT 900)
  endfunction()

  zk3_add_lint(lock_annotations "${ZK3_CLANGXX}"
    ${CMAKE_CURRENT_LIST_DIR}/check_lock_annotations.sh ${ZK3_CLANGXX} ${PROJECT_SOURCE_DIR})
  zk3_add_lint(clang_tidy "${ZK3_CLANG_TIDY}"
    ${CMAKE_CURRENT_LIST_DIR}/check_tidy.sh ${ZK3_CLANG_TIDY} ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR})
endif()
