// What the modules of config/ share, and the tests with them. Not part of the public headers.
#pragma once

#include "msplatform/cfgCtrlMgr.h"

// The store behind the flat functions; private to the library.
extern ZvConfigCtrlMgr cfgMgr;
