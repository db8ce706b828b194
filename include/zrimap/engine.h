// zrimap engine-level types: include this one header and link zrimap::zrimap.
#pragma once

#include "zrimap/base/BufferLimits.h"
#include "zrimap/base/ContentCoding.h"
#include "zrimap/base/DataBuffer.h"
#include "zrimap/base/ExtPtrArray.h"
#include "zrimap/base/ImapMsgSummary.h"
#include "zrimap/base/ImapResultSet.h"
#include "zrimap/base/LogBase.h"
#include "zrimap/base/MimeParser.h"
#include "zrimap/base/Progress.h"
#include "zrimap/base/SocketParams.h"
#include "zrimap/base/StrFunctions.h"
#include "zrimap/base/StringBuffer.h"
#include "zrimap/base/XString.h"
#include "zrimap/base/ZendrelObject.h"
