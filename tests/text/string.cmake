zk3_add_gtest(string_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/string_test.cpp
  LABELS text)

# Out-of-memory paths, reached by interposing strdup, wcsdup and malloc in the
# test program. The sanitizers interpose these themselves, so this one runs in
# the plain builds (both ABIs) only.
if(NOT ZK3_SANITIZE)
  zk3_add_gtest(string_oom_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/string_oom_test.cpp
    LABELS text)
endif()
