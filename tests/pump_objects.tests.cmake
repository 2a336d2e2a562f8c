# BPF objects that stand in for the platform loader's in the attach and pump
# tests and the pump benchmark.
find_program(TAVO_BPF_CLANG NAMES clang clang-14 REQUIRED)
set(TAVO_TEST_BPF_DIR ${CMAKE_CURRENT_BINARY_DIR}/bpf)
set(TAVO_PUMP_BPF_OBJECT ${TAVO_TEST_BPF_DIR}/tavo_pump_test.bpf.o)
add_custom_command(
  OUTPUT ${TAVO_PUMP_BPF_OBJECT}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${TAVO_TEST_BPF_DIR}
  COMMAND ${TAVO_BPF_CLANG} -O2 -g -target bpf -D__TARGET_ARCH_x86
          -I/usr/include/${CMAKE_LIBRARY_ARCHITECTURE} -I${PROJECT_SOURCE_DIR}
          -c ${CMAKE_CURRENT_SOURCE_DIR}/bpf/tavo_pump_test.bpf.c -o ${TAVO_PUMP_BPF_OBJECT}
  DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/bpf/tavo_pump_test.bpf.c ${PROJECT_SOURCE_DIR}/bpf/tavo_bpf_records.h
  COMMENT "Building BPF test object tavo_pump_test.bpf.o"
  VERBATIM)
add_custom_target(tavo_pump_bpf_objects DEPENDS ${TAVO_PUMP_BPF_OBJECT})

foreach(user attach_test pump_test pump_bench)
  if(TARGET ${user})
    add_dependencies(${user} tavo_pump_bpf_objects)
    target_compile_definitions(${user} PRIVATE TAVO_PUMP_BPF_OBJECT="${TAVO_PUMP_BPF_OBJECT}")
  endif()
endforeach()
