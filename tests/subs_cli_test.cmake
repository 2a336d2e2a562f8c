target_link_libraries(${name} PRIVATE tavo_client)
# The tests run tavoctl as a child process.
add_dependencies(${name} tavoctl)
target_compile_definitions(${name} PRIVATE TAVOCTL_PATH="$<TARGET_FILE:tavoctl>")
