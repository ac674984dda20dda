#include "Enroller.h"

// The reply tuple of the D-Bus "diagnose" method: one dictionary of what the engine knows.
GLibPtr<GVariant> Enroller::diagnose() {
    GVariantBuilder dict;
    g_variant_builder_init(&dict, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&dict, "{sv}", "enrolled", g_variant_new_boolean(status.enrolled));
    g_variant_builder_add(&dict, "{sv}", "disabled", g_variant_new_boolean(info->disabled));
    g_variant_builder_add(&dict, "{sv}", "base_url", g_variant_new_string(info->base_url.c_str()));

    GVariantBuilder protocols;
    g_variant_builder_init(&protocols, G_VARIANT_TYPE_STRING_ARRAY);
    for (const std::string& protocol : info->protocols)
        g_variant_builder_add(&protocols, "s", protocol.c_str());
    g_variant_builder_add(&dict, "{sv}", "protocols", g_variant_builder_end(&protocols));

    if (!publicKeyPem.empty())
        g_variant_builder_add(&dict, "{sv}", "pubkey", g_variant_new_string(publicKeyPem.c_str()));
    if (rpmb)
        diagnose_rpmb(&dict);
    return GLibPtr<GVariant>(g_variant_new("(a{sv})", &dict));
}
