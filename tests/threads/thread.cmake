zk3_add_gtest(thread_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/thread_test.cpp LABELS threads)
