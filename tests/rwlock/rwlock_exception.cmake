zk3_add_gtest(rwlock_exception_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/rwlock_exception_test.cpp
  LABELS rwlock
  TIMEOUT 60)
