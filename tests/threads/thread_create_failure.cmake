# Internal: swaps the library's thread-creation seam.
zk3_add_gtest(thread_create_failure_test INTERNAL
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/thread_create_failure_test.cpp LABELS threads)
