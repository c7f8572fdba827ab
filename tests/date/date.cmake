# The date family: serial dates, zone rules, TZif loading, helpers, conversion.
set(ZK3_DATE_TEST_DIR ${CMAKE_CURRENT_LIST_DIR})
zk3_add_gtest(date_serial_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/serial_test.cpp LABELS date)
zk3_add_gtest(date_zone_rules_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/zone_rules_test.cpp
              LABELS date INTERNAL)
zk3_add_gtest(date_tzif_parser_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/tzif_parser_test.cpp
              LABELS date INTERNAL)
zk3_add_gtest(date_tz_factory_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/tz_factory_test.cpp LABELS date)
zk3_add_gtest(date_convert_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/convert_test.cpp LABELS date)
