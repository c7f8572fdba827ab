# The report, in process: the unload hook called by name.
zk3_add_gtest(performance_report_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/performance_report_test.cpp
  LABELS "frame")

# The report at a real unload: a helper process dlopens the library, a caller
# module fills records, dlclose writes "performance.log".
add_library(zk3_performance_recorder MODULE ${CMAKE_CURRENT_LIST_DIR}/performance_recorder.cpp)
target_link_libraries(zk3_performance_recorder PRIVATE zelkit3::zelkit3)
set_target_properties(zk3_performance_recorder PROPERTIES CXX_STANDARD 11)
zk3_warnings(zk3_performance_recorder)

add_executable(zk3_performance_unload_helper ${CMAKE_CURRENT_LIST_DIR}/performance_unload_helper.cpp)
target_link_libraries(zk3_performance_unload_helper PRIVATE ${CMAKE_DL_LIBS})
zk3_warnings(zk3_performance_unload_helper)

zk3_add_gtest(performance_unload_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/performance_unload_test.cpp
  LABELS "frame;multiprocess" TIMEOUT 120)
add_dependencies(performance_unload_test zk3_performance_recorder zk3_performance_unload_helper)
target_compile_definitions(performance_unload_test PRIVATE
  ZK3_LIBRARY_FILE="$<TARGET_FILE:zelkit3>"
  ZK3_RECORDER_FILE="$<TARGET_FILE:zk3_performance_recorder>"
  ZK3_UNLOAD_HELPER_FILE="$<TARGET_FILE:zk3_performance_unload_helper>")
