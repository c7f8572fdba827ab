# Zone conversion, ours and the peers' in one run: Howard Hinnant's date
# (zoned_time over the system tzdb), Abseil's time zones and glibc.
find_package(date CONFIG REQUIRED)
find_package(absl CONFIG REQUIRED)
zk3_add_bench(bench_date SOURCES ${CMAKE_CURRENT_LIST_DIR}/date_bench.cpp
              LIBS date::date-tz absl::time)
