# A BPF object that stands in for the platform's in the pump test and the
# pump benchmark. They find it in bpf/ beside the tests.
find_program(TAVO_BPF_CLANG NAMES clang clang-14 REQUIRED)
set(TAVO_PUMP_BPF_OBJECT ${CMAKE_CURRENT_BINARY_DIR}/bpf/tavo_pump_test.bpf.o)
add_custom_command(
  OUTPUT ${TAVO_PUMP_BPF_OBJECT}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/bpf
  COMMAND ${TAVO_BPF_CLANG} -O2 -g -target bpf -I/usr/include/${CMAKE_LIBRARY_ARCHITECTURE} -I${PROJECT_SOURCE_DIR}
          -c ${CMAKE_CURRENT_SOURCE_DIR}/bpf/tavo_pump_test.bpf.c -o ${TAVO_PUMP_BPF_OBJECT}
  DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/bpf/tavo_pump_test.bpf.c ${PROJECT_SOURCE_DIR}/bpf/tavo_bpf_records.h
  COMMENT "BPF tavo_pump_test.bpf.o"
  VERBATIM)
add_custom_target(tavo_pump_bpf_objects DEPENDS ${TAVO_PUMP_BPF_OBJECT})
foreach(user pump_test pump_bench)
  if(TARGET ${user})
    add_dependencies(${user} tavo_pump_bpf_objects)
  endif()
endforeach()
