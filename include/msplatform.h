// msplatform: the platform layer of the media server.
//
// One header for all of it: the shared configuration, the event logger, the language and media format
// tables, and what they rest on (the lock across processes, threads, events, the directory walker, text
// conversion, the XML parser, MD5 and UUIDs). Each module also has its own header under msplatform/.
#pragma once

#include "msplatform/export.h"
#include "msplatform/mutex.h"
#include "msplatform/cfgCtrlMgr.h"
#include "msplatform/ZvCfgCtrlMgr.h"
#include "msplatform/stringUtils.h"
#include "msplatform/unicode.h"
#include "msplatform/zvString.h"
#include "msplatform/xmlParser.h"
#include "msplatform/eventLogger_specific.h"
#include "msplatform/osSpecificFunctions.h"
#include "msplatform/dynLibrary.h"
#include "msplatform/thread.h"
#include "msplatform/event.h"
#include "msplatform/dirWalk.h"
#include "msplatform/md5.h"
#include "msplatform/uuid.h"
#include "msplatform/uuid_utils.h"
#include "msplatform/commonAPIs.h"
#include "msplatform/languageReader.h"
#include "msplatform/ZvLanguageReader.h"
#include "msplatform/mediaMapper.h"
#include "msplatform/mediaFormats.h"
#include "msplatform/eventLogger.h"
#include "msplatform/ZvEventLogger.h"
