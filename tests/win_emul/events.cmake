zk3_add_gtest(events_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/events_test.cpp LABELS win_emul)
zk3_add_gtest(wait_multiple_test INTERNAL
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/wait_multiple_test.cpp LABELS win_emul)
