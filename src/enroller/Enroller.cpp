#include "Enroller.h"

Enroller::Enroller(const EnrollerInfo&, const std::string&, SoupSession*) {}

Enroller::~Enroller() = default;
