#pragma once

#include <cstdint>

// Holds an RPMB authentication key and computes the MACs of RPMB frames with it, as the
// card does; also makes the random nonces that keep read responses fresh.
class RPMBAuth {
  public:
    RPMBAuth();
    explicit RPMBAuth(const unsigned char* key);

    void set_key(const unsigned char* key);

    // Fills `nonce` with 16 random bytes.
    bool new_nonce();

    // Computes `mac` over `nblocks` blocks of `data`, each followed by the nonce and the
    // given fields, exactly the bytes 228 to 511 of every frame of the operation. Read and
    // counter frames carry `nonce`; writes use zeros. False without a key.
    bool new_mac(const unsigned char* data, unsigned long nblocks, unsigned int counter,
                 unsigned short address, unsigned short block_count, unsigned short result,
                 unsigned short type);

    bool new_write_req_mac(const unsigned char* data, unsigned int counter, unsigned short address,
                           unsigned short block_count);
    bool new_write_rsp_mac(unsigned int counter, unsigned short address, unsigned short result);
    bool new_read_rsp_mac(const unsigned char* data, unsigned short address,
                          unsigned short block_count, unsigned short result);
    bool new_read_counter_rsp_mac(unsigned int counter, unsigned short result);

    bool has_key;
    unsigned char key[32];
    unsigned char nonce[16];
    unsigned char mac[32];
};
