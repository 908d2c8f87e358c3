# The configuration reader's test refuses chosen allocations (tests/support/alloc_hooks.h).
target_link_options(conf_test PRIVATE -Wl,--wrap=malloc,--wrap=calloc,--wrap=realloc,--wrap=free)
