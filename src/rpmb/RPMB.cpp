#include "RPMB.h"

#include <cerrno>
#include <cstring>
#include <vector>

void RPMB::Frame::clear() {
    memset(this, 0, sizeof(*this));
}

int RPMB::read_counter(const unsigned char* nonce, unsigned int* counter, unsigned char* mac) {
    if (!counter) {
        errno = EINVAL;
        return -1;
    }
    Frame req{};
    req.set_type(TYPE_COUNTER_READ);
    if (nonce)
        memcpy(req.nonce, nonce, NONCE_SIZE);

    Frame rsp{};
    const int rc = do_op(&req, 1, &rsp, 1);
    if (rc != 0)
        return rc;
    if (rsp.type() != TYPE_COUNTER_READ_RSP) {
        errno = EILSEQ;
        return -1;
    }
    *counter = rsp.write_counter();
    if (mac)
        memcpy(mac, rsp.mac, MAC_SIZE);
    return rsp.result();
}

int RPMB::read(unsigned long address, unsigned long count, const unsigned char* nonce,
               unsigned char* data, unsigned char* mac) {
    if (count == 0)
        return 0;
    // Checked before allocating: no operation moves more frames than this, and the
    // response buffer must stay bounded whatever a peer asks for.
    if (count > MAX_FRAMES || !data) {
        errno = EINVAL;
        return -1;
    }
    Frame req{};
    req.set_type(TYPE_DATA_READ);
    req.set_address(static_cast<uint16_t>(address));
    if (nonce)
        memcpy(req.nonce, nonce, NONCE_SIZE);

    std::vector<Frame> rsp(count);
    const int rc = do_op(&req, 1, rsp.data(), count);
    if (rc != 0)
        return rc;
    if (rsp.front().type() != TYPE_DATA_READ_RSP) {
        errno = EILSEQ;
        return -1;
    }
    for (unsigned long i = 0; i < count; ++i)
        memcpy(data + i * BLOCK_SIZE, rsp[i].data, BLOCK_SIZE);
    if (mac)
        memcpy(mac, rsp.back().mac, MAC_SIZE);
    return rsp.front().result();
}

int RPMB::write(unsigned long address, unsigned long count, unsigned int counter,
                const unsigned char* data, const unsigned char* mac, unsigned char* rsp_mac,
                unsigned int* rsp_counter, unsigned short* rsp_address) {
    if (count == 0)
        return 0;
    if (count > 2 || !data || !mac) {
        errno = EINVAL;
        return -1;
    }
    Frame req[2]{};
    for (unsigned long i = 0; i < count; ++i) {
        req[i].set_write_counter(counter);
        req[i].set_address(static_cast<uint16_t>(address));
        req[i].set_block_count(static_cast<uint16_t>(count));
        req[i].set_type(TYPE_DATA_WRITE);
        memcpy(req[i].data, data + i * BLOCK_SIZE, BLOCK_SIZE);
    }
    memcpy(req[count - 1].mac, mac, MAC_SIZE);

    Frame rsp{};
    const int rc = do_op(req, count, &rsp, 1);
    if (rc != 0)
        return rc;
    if (rsp.type() != TYPE_DATA_WRITE_RSP) {
        errno = EILSEQ;
        return -1;
    }
    if (rsp_mac)
        memcpy(rsp_mac, rsp.mac, MAC_SIZE);
    if (rsp_counter)
        *rsp_counter = rsp.write_counter();
    if (rsp_address)
        *rsp_address = rsp.address();
    return rsp.result();
}
