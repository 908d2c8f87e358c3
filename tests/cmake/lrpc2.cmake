# The exchange tests start the simulated daemon.
add_dependencies(lrpc2_exchange_test kvdsim)
