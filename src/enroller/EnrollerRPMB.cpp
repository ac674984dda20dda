#include "Enroller.h"

bool Enroller::open_rpmb() {
    g_warning("RPMB access is not supported by this build");
    return false;
}
