zk3_add_bench(bench_rwlock SOURCES ${CMAKE_CURRENT_LIST_DIR}/rwlock_bench.cpp)
