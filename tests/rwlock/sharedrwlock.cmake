zk3_add_gtest(sharedrwlock_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/sharedrwlock_test.cpp
  LABELS rwlock multiprocess notsan
  TIMEOUT 150
  PROPERTIES RESOURCE_LOCK sysv-ipc)
