zk3_add_gtest(worker_thread_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/worker_thread_test.cpp LABELS threads)
