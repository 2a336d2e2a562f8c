target_link_libraries(${name} PRIVATE tavo_client)
# The tests run tavoctl as a child process; the finder is tested directly.
add_dependencies(${name} tavoctl)
target_sources(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tools/tavo_cli/tavoctl_service_finder.cpp)
target_compile_definitions(${name} PRIVATE TAVOCTL_PATH="$<TARGET_FILE:tavoctl>")
