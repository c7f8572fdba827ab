zk3_add_gtest(rwlock_locking_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/locking_test.cpp
  LABELS rwlock multiprocess notsan
  TIMEOUT 150
  PROPERTIES RESOURCE_LOCK sysv-ipc)
