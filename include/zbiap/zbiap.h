// ZBIAP: in-app purchases for C++ hosts. The umbrella header and the version symbols.
#ifndef ZBIAP_ZBIAP_H_
#define ZBIAP_ZBIAP_H_

#include "zbiap/foundation/color.h"
#include "zbiap/foundation/date.h"
#include "zbiap/foundation/decimal.h"
#include "zbiap/foundation/error.h"
#include "zbiap/foundation/json.h"
#include "zbiap/foundation/value.h"
#include "zbiap/platform/main_queue.h"
#include "zbiap/platform/platform.h"

// The library's version as a number (1.0) and as a what-string ("@(#)PROGRAM:zbiap ...").
extern "C" const double ZBIAPVersionNumber;
extern "C" const unsigned char ZBIAPVersionString[];

#endif  // ZBIAP_ZBIAP_H_
