#include "zbiap/zbiap.h"

extern "C" const double ZBIAPVersionNumber = 1.0;
extern "C" const unsigned char ZBIAPVersionString[] = "@(#)PROGRAM:zbiap  PROJECT:zbiap-1.0.0\n";
