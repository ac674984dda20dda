#include "RPMBAuth.h"

#include <fcntl.h>
#include <glib.h>
#include <unistd.h>

#include <cstring>

#include "GLibPtr.h"
#include "RPMB.h"
#include "ScopedFd.h"

namespace {

const unsigned char zero_block[RPMB::BLOCK_SIZE] = {};

void put_be(unsigned char* out, uint64_t value, size_t size) {
    for (size_t i = 0; i < size; ++i)
        out[i] = static_cast<unsigned char>(value >> (8 * (size - 1 - i)));
}

}  // namespace

RPMBAuth::RPMBAuth() : has_key(false), key{}, nonce{}, mac{} {}

RPMBAuth::RPMBAuth(const unsigned char* key_) : RPMBAuth() {
    set_key(key_);
}

void RPMBAuth::set_key(const unsigned char* key_) {
    memcpy(key, key_, sizeof(key));
    has_key = true;
}

bool RPMBAuth::new_nonce() {
    const ScopedFd fd(open("/dev/urandom", O_RDONLY | O_CLOEXEC));
    if (!fd)
        return false;
    size_t got = 0;
    while (got < sizeof(nonce)) {
        const ssize_t n = ::read(fd.get(), nonce + got, sizeof(nonce) - got);
        if (n <= 0)
            break;
        got += static_cast<size_t>(n);
    }
    return got == sizeof(nonce);
}

bool RPMBAuth::new_mac(const unsigned char* data, unsigned long nblocks, unsigned int counter,
                       unsigned short address, unsigned short block_count, unsigned short result,
                       unsigned short type) {
    if (!has_key)
        return false;

    // The fields after the data, laid out as in a frame: nonce, counter, address, block
    // count, result, type.
    unsigned char trailer[RPMB::Frame::MAC_INPUT_SIZE - RPMB::BLOCK_SIZE] = {};
    const bool with_nonce = type == RPMB::TYPE_COUNTER_READ || type == RPMB::TYPE_DATA_READ ||
                            type == RPMB::TYPE_COUNTER_READ_RSP || type == RPMB::TYPE_DATA_READ_RSP;
    if (with_nonce)
        memcpy(trailer, nonce, sizeof(nonce));
    put_be(trailer + 16, counter, 4);
    put_be(trailer + 20, address, 2);
    put_be(trailer + 22, block_count, 2);
    put_be(trailer + 24, result, 2);
    put_be(trailer + 26, type, 2);

    if (g_checksum_type_get_length(G_CHECKSUM_SHA256) != sizeof(mac))
        return false;
    const GHmacPtr hmac(g_hmac_new(G_CHECKSUM_SHA256, key, sizeof(key)));
    if (!hmac)
        return false;
    for (unsigned long i = 0; i < nblocks; ++i) {
        g_hmac_update(hmac.get(), data + i * RPMB::BLOCK_SIZE, RPMB::BLOCK_SIZE);
        g_hmac_update(hmac.get(), trailer, sizeof(trailer));
    }
    gsize length = sizeof(mac);
    unsigned char digest[sizeof(mac)];
    g_hmac_get_digest(hmac.get(), digest, &length);
    if (length != sizeof(mac))
        return false;
    memcpy(mac, digest, sizeof(mac));
    return true;
}

bool RPMBAuth::new_write_req_mac(const unsigned char* data, unsigned int counter,
                                 unsigned short address, unsigned short block_count) {
    return new_mac(data, block_count, counter, address, block_count, 0, RPMB::TYPE_DATA_WRITE);
}

bool RPMBAuth::new_write_rsp_mac(unsigned int counter, unsigned short address,
                                 unsigned short result) {
    return new_mac(zero_block, 1, counter, address, 0, result, RPMB::TYPE_DATA_WRITE_RSP);
}

bool RPMBAuth::new_read_rsp_mac(const unsigned char* data, unsigned short address,
                                unsigned short block_count, unsigned short result) {
    return new_mac(data, block_count, 0, address, block_count, result, RPMB::TYPE_DATA_READ_RSP);
}

bool RPMBAuth::new_read_counter_rsp_mac(unsigned int counter, unsigned short result) {
    return new_mac(zero_block, 1, counter, 0, 0, result, RPMB::TYPE_COUNTER_READ_RSP);
}
