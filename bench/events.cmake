zk3_add_bench(bench_events SOURCES ${CMAKE_CURRENT_LIST_DIR}/events_bench.cpp)
