target_link_libraries(${name} PRIVATE tavoctl_top_model)
# The tests run tavoctl as a child process; the finder is tested directly.
add_dependencies(${name} tavoctl)
target_compile_definitions(${name} PRIVATE TAVOCTL_PATH="$<TARGET_FILE:tavoctl>")
