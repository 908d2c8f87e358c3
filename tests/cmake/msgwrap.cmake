# The wrapper test refuses chosen allocations of the library (tests/support/alloc_hooks.h).
target_link_options(msgwrap_test PRIVATE -Wl,--wrap=malloc,--wrap=calloc,--wrap=realloc,--wrap=free)
