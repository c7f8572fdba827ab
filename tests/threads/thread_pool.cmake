# Internal: widens a window of the pool with a seam.
zk3_add_gtest(thread_pool_test INTERNAL SOURCES ${CMAKE_CURRENT_LIST_DIR}/thread_pool_test.cpp LABELS threads)
