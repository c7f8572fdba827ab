zk3_add_gtest(file_system_utils_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/file_system_utils_test.cpp
  LABELS "filesystem")
zk3_add_gtest(delete_directory_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/delete_directory_test.cpp
  LABELS "filesystem;slow" TIMEOUT 600)
