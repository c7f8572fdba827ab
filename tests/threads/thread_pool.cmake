zk3_add_gtest(thread_pool_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/thread_pool_test.cpp LABELS threads)
