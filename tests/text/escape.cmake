zk3_add_gtest(escape_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/escape_test.cpp
  LABELS text)
