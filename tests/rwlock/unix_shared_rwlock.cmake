zk3_add_gtest(unix_shared_rwlock_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/unix_shared_rwlock_test.cpp
  LABELS rwlock multiprocess notsan
  TIMEOUT 150
  PROPERTIES RESOURCE_LOCK sysv-ipc)
