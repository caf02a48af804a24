#ifndef DOVA_DOVA_H_
#define DOVA_DOVA_H_

// Everything a node needs from the middleware, in one include.
#include "dova/cpu.h"
#include "dova/guid.h"
#include "dova/init.h"
#include "dova/json/elements.h"
#include "dova/json/reader.h"
#include "dova/json/writer.h"
#include "dova/os/node_handle_base.h"
#include "dova/param.h"
#include "dova/time.h"
#include "dova/trace.h"

#endif  // DOVA_DOVA_H_
