# The message and byte buffer tests watch the library's allocations (tests/support/alloc_hooks.h):
# refused allocations, leaks on failure paths, and wiping before free.
foreach(target lrpc2_msg_test lrpc2_bytebuf_test)
  target_link_options(${target} PRIVATE
    -Wl,--wrap=malloc,--wrap=calloc,--wrap=realloc,--wrap=free)
endforeach()
