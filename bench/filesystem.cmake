# deleteDirectory against std::filesystem::remove_all on the same trees.
zk3_add_bench(bench_filesystem SOURCES ${CMAKE_CURRENT_LIST_DIR}/filesystem_bench.cpp)
