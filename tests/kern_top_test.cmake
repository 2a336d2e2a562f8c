# Runs the daemon and tavoctl as child processes.
target_link_libraries(${name} PRIVATE tavo_loader)
add_dependencies(${name} tavoctl tavo_bpfd)
target_compile_definitions(${name} PRIVATE TAVOCTL_PATH="$<TARGET_FILE:tavoctl>" TAVO_BPFD_PATH="$<TARGET_FILE:tavo_bpfd>")
