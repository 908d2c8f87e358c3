# The message, byte buffer and authentication wiping tests watch the library's allocations
# (tests/support/alloc_hooks.h): refused allocations, leaks on failure paths, and wiping before free.
foreach(target lrpc2_msg_test lrpc2_bytebuf_test lrpc2_auth_wipe_test)
  target_link_options(${target} PRIVATE
    -Wl,--wrap=malloc,--wrap=calloc,--wrap=realloc,--wrap=free)
endforeach()
add_dependencies(lrpc2_auth_wipe_test kvdsim)
