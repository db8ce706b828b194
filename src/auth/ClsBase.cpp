#include "zrimap/auth/ClsBase.h"

#include "zrimap/auth/Settings.h"

namespace zr {

ClsBase::~ClsBase() = default;

int _zrSettings::m_defaultNtlmVersion = 2;
bool _zrSettings::m_defaultBulkSendBehavior = true;
const char* _zrSettings::m_certifiedMailProviderDomain = "";

}  // namespace zr
