# Internal: the shared layer's types are not exported.
zk3_add_gtest(deadline_test INTERNAL SOURCES ${CMAKE_CURRENT_LIST_DIR}/deadline_test.cpp LABELS base)
