zk3_add_bench(bench_text SOURCES ${CMAKE_CURRENT_LIST_DIR}/text_bench.cpp)
