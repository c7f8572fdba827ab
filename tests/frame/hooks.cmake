# The hooks are tested from a program that opens the library at run time.
add_executable(hooks_test ${CMAKE_CURRENT_LIST_DIR}/hooks_test.cpp)
target_link_libraries(hooks_test PRIVATE zk3_test_support GTest::gtest_main ${CMAKE_DL_LIBS})
target_include_directories(hooks_test PRIVATE ${PROJECT_SOURCE_DIR}/include)
target_compile_definitions(hooks_test PRIVATE ZK3_LIBRARY_PATH="$<TARGET_FILE:zelkit3>")
add_dependencies(hooks_test zelkit3)
zk3_warnings(hooks_test)
gtest_discover_tests(hooks_test DISCOVERY_MODE PRE_TEST PROPERTIES LABELS "frame" TIMEOUT 120)
