# The date family: serial dates, zone rules, TZif loading, helpers, conversion.
set(ZK3_DATE_TEST_DIR ${CMAKE_CURRENT_LIST_DIR})
zk3_add_gtest(date_serial_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/serial_test.cpp LABELS date)
zk3_add_gtest(date_zone_rules_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/zone_rules_test.cpp
              LABELS date INTERNAL)
zk3_add_gtest(date_tzif_parser_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/tzif_parser_test.cpp
              LABELS date INTERNAL)
zk3_add_gtest(date_tz_factory_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/tz_factory_test.cpp LABELS date)
zk3_add_gtest(date_convert_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/convert_test.cpp LABELS date)
# The golden conversions: written by date_golden_gen on x86_64, checked on both ABIs.
zk3_add_gtest(date_golden_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/golden_test.cpp
              ${CMAKE_CURRENT_LIST_DIR}/golden_cases.cpp LABELS date INTERNAL)
add_executable(date_golden_gen ${CMAKE_CURRENT_LIST_DIR}/golden_gen.cpp
               ${CMAKE_CURRENT_LIST_DIR}/golden_cases.cpp)
target_link_libraries(date_golden_gen PRIVATE zelkit3_internal)
zk3_warnings(date_golden_gen)
zk3_add_gtest(date_real_zones_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/real_zones_test.cpp LABELS date)
