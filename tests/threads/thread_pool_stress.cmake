# About 2 s without sanitizers, 20 s under ThreadSanitizer.
zk3_add_gtest(thread_pool_stress_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/thread_pool_stress_test.cpp
  LABELS threads slow TIMEOUT 300)
