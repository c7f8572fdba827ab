# Internal: reads the manager's interval and swaps the thread-creation seam.
zk3_add_gtest(timer_test INTERNAL SOURCES ${CMAKE_CURRENT_LIST_DIR}/timer_test.cpp LABELS threads)
