zk3_add_gtest(safe_crt_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/safe_crt_test.cpp
  LABELS "win_emul")
