# Callers build against the installed tree, by CMake package and pkg-config,
# with the other ABI's tree installed beside it when that has been built.
if(NOT ZK3_SANITIZE)  # an instrumented library needs an instrumented caller
add_test(NAME consumer.installed_tree
  COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/run.sh ${CMAKE_BINARY_DIR} ${PROJECT_SOURCE_DIR}
          ${ZK3_ARCH} ${CMAKE_CXX_COMPILER})
set_tests_properties(consumer.installed_tree PROPERTIES LABELS "abi;slow" TIMEOUT 300)
endif()
