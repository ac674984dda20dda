#pragma once

#include <tss2/tss2_esys.h>

#include <string>
#include <vector>

// The device's TPM 2.0 and its RSA authentication key: a primary key of the endorsement
// hierarchy made from a fixed template, kept at a fixed persistent handle. The server proves
// that it talks to this TPM by encrypting to that key; only the TPM can decrypt.
class TPM2 {
  public:
    enum Padding {
        RSAES = 0,
        OAEP_SHA1 = 1,
        OAEP_SHA256 = 2,
        UNKNOWN_PADDING = 3,
    };

    static constexpr TPM2_HANDLE AUTHKEY_HANDLE = 0x81018001;
    static constexpr size_t CIPHER_SIZE = 256;  // RSA 2048
    static const TPM2B_PUBLIC authkey_tmpl;

    TPM2() = default;
    ~TPM2();
    TPM2(const TPM2&) = delete;
    TPM2& operator=(const TPM2&) = delete;

    // Connects through the TSS library's default TCTI and makes the key available: the one
    // at the persistent handle when it matches the template, else a new one.
    bool open();
    void close();
    bool is_open() const { return ctx != nullptr; }

    bool load_auth_key();
    bool create_auth_key();
    void unload_auth_key();

    static bool check_auth_key_pub(const TPMT_PUBLIC& pub, const TPM2B_NAME& name,
                                   const TPM2B_NAME& qualified_name);
    static Padding parse_padding(const std::string& padding, const std::string& hash);

    bool auth_decrypt(const std::vector<unsigned char>& cipher, Padding padding,
                      std::vector<unsigned char>& plain);

  private:
    ESYS_CONTEXT* ctx = nullptr;
    ESYS_TR authkey = ESYS_TR_NONE;
    bool persistent = false;
};
