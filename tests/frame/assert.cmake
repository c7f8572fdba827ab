zk3_add_gtest(assert_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/assert_test.cpp LABELS frame)
