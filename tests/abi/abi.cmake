# The exported surface of the product, per ABI. Sanitizer builds add their
# own instrumentation symbols and are left out.
if(NOT ZK3_SANITIZE)
  add_test(NAME abi.exported_symbols
    COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/check_symbols.sh
            $<TARGET_FILE:zelkit3> ${CMAKE_CURRENT_LIST_DIR}/symbols ${ZK3_ARCH})
  set_tests_properties(abi.exported_symbols PROPERTIES LABELS "abi")
endif()

# Every public header compiles on its own as C++11, with our warnings.
# A new public header is added to this list by hand.
set(ZK3_PUBLIC_HEADERS
  assert date escape export filesystem lifecycle logger mutex performance rwlock
  safe_crt string thread thread_pool timer timezone win32 win_emul)
set(ZK3_HEADER_TUS)
foreach(stem IN LISTS ZK3_PUBLIC_HEADERS)
  set(tu ${CMAKE_CURRENT_BINARY_DIR}/header_cxx11/${stem}.cpp)
  file(CONFIGURE OUTPUT ${tu} CONTENT "#include \"zelkit3/${stem}.h\"\n#include \"zelkit3/${stem}.h\"\n")
  list(APPEND ZK3_HEADER_TUS ${tu})
endforeach()
add_library(zk3_headers_cxx11 OBJECT ${ZK3_HEADER_TUS})
target_link_libraries(zk3_headers_cxx11 PRIVATE zelkit3::zelkit3)
set_target_properties(zk3_headers_cxx11 PROPERTIES CXX_STANDARD 11 CXX_EXTENSIONS OFF)
zk3_warnings(zk3_headers_cxx11)
