zk3_add_bench(bench_threads SOURCES ${CMAKE_CURRENT_LIST_DIR}/threads_bench.cpp)
