zk3_add_gtest(logger_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/logger_test.cpp
  LABELS frame)
