zk3_add_gtest(rwlock_stress_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/stress_test.cpp
  LABELS rwlock multiprocess slow notsan
  TIMEOUT 200
  PROPERTIES RESOURCE_LOCK sysv-ipc)
