#include "EnrollerInfo.h"

#include <algorithm>

bool EnrollerInfo::hasProtocol(const std::string& name) const {
    return std::find(protocols.begin(), protocols.end(), name) != protocols.end();
}
