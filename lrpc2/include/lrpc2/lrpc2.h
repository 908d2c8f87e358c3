/* The whole lrpc2 client library. */
#ifndef LRPC2_LRPC2_H
#define LRPC2_LRPC2_H

#include "lrpc2/bytebuf.h"
#include "lrpc2/conf.h"
#include "lrpc2/conn.h"
#include "lrpc2/exchange.h"
#include "lrpc2/msg.h"
#include "lrpc2/status.h"
#include "lrpc2/table.h"

#endif
