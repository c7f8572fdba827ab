# Callers build against the Debian packages of scripts/package.sh, extracted
# into a temporary root. scripts/test.sh makes the packages before it runs
# ctest; without them the test is skipped and says why.
if(NOT ZK3_SANITIZE)
  add_test(NAME consumer.packages
    COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/packages.sh ${PROJECT_SOURCE_DIR}/build/packages
            ${PROJECT_SOURCE_DIR} ${ZK3_ARCH} ${CMAKE_CXX_COMPILER} ${PROJECT_VERSION})
  set_tests_properties(consumer.packages PROPERTIES
    LABELS "package;slow" TIMEOUT 300 SKIP_RETURN_CODE 77)
endif()
