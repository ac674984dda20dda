#include "RPMBSimulator.h"

#include <cerrno>
#include <cstring>

namespace {

constexpr std::ios::openmode rw_binary = std::ios::in | std::ios::out | std::ios::binary;

bool all_zero(const unsigned char* p, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        if (p[i])
            return false;
    }
    return true;
}

bool write_file(const std::string& path, const unsigned char* bytes, size_t length, size_t repeat) {
    std::ofstream out(path, std::ios::out | std::ios::trunc | std::ios::binary);
    for (size_t i = 0; out && i < repeat; ++i)
        out.write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(length));
    out.close();
    return !out.fail();
}

}  // namespace

RPMBSimulator::~RPMBSimulator() {
    data_file.close();
    wrctr_file.close();
}

bool RPMBSimulator::create(const std::string& base, const std::vector<unsigned char>& key,
                           unsigned long size) {
    if (key.size() != KEY_SIZE || size == 0 || size > MAX_SIZE || size % SIZE_UNIT != 0) {
        errno = EINVAL;
        return false;
    }
    const unsigned char zeros[BLOCK_SIZE] = {};
    return write_file(base + ".key", key.data(), key.size(), 1) &&
           write_file(base + ".wrctr", zeros, 4, 1) &&
           write_file(base + ".data", zeros, BLOCK_SIZE, size / BLOCK_SIZE);
}

bool RPMBSimulator::open(const std::string& base) {
    if (wrctr_file.is_open() || data_file.is_open()) {
        errno = EBUSY;
        return false;
    }
    unsigned char key[KEY_SIZE];
    {
        std::ifstream key_file(base + ".key", std::ios::in | std::ios::binary);
        if (!key_file.read(reinterpret_cast<char*>(key), sizeof(key))) {
            if (key_file.is_open())
                errno = EINVAL;  // short key file: nothing of the system failed
            return false;
        }
    }
    auth.set_key(key);

    wrctr_file.open(base + ".wrctr", rw_binary);
    if (!wrctr_file.is_open())
        return false;
    data_file.open(base + ".data", rw_binary);
    if (!data_file.is_open()) {
        const int saved = errno;
        wrctr_file.close();
        errno = saved;
        return false;
    }
    data_file.seekg(0, std::ios::end);
    const std::streamoff end = data_file.tellg();
    data_file.seekg(0, std::ios::beg);
    size = end > 0 ? static_cast<uint64_t>(end) : 0;

    if (!read_wrctr()) {
        size = 0;
        close();
        errno = EIO;
        return false;
    }
    return true;
}

void RPMBSimulator::close() {
    wrctr_file.close();
    data_file.close();
}

bool RPMBSimulator::read_wrctr() {
    unsigned char be[4];
    wrctr_file.clear();
    wrctr_file.seekg(0);
    if (!wrctr_file.read(reinterpret_cast<char*>(be), sizeof(be)))
        return false;
    counter = uint32_t{be[0]} << 24 | uint32_t{be[1]} << 16 | uint32_t{be[2]} << 8 | be[3];
    return true;
}

bool RPMBSimulator::write_wrctr() {
    const unsigned char be[4] = {
        static_cast<unsigned char>(counter >> 24), static_cast<unsigned char>(counter >> 16),
        static_cast<unsigned char>(counter >> 8), static_cast<unsigned char>(counter)};
    wrctr_file.clear();
    wrctr_file.seekp(0);
    wrctr_file.write(reinterpret_cast<const char*>(be), sizeof(be));
    wrctr_file.flush();
    return !wrctr_file.fail();
}

// Both bounds compare the block number plus 256 with the size in bytes, not in blocks.
// That is kept as the files in the field were made with it; a block past the end of the
// file that passes it still fails through the stream.
bool RPMBSimulator::read_block(unsigned char* buf, unsigned long address) {
    if (address + BLOCK_SIZE > size)
        return false;
    data_file.clear();
    data_file.seekg(static_cast<std::streamoff>(address * BLOCK_SIZE));
    data_file.read(reinterpret_cast<char*>(buf), BLOCK_SIZE);
    return !data_file.fail();
}

bool RPMBSimulator::write_block(const unsigned char* buf, unsigned long address) {
    if (address + BLOCK_SIZE > size)
        return false;
    data_file.clear();
    data_file.seekp(static_cast<std::streamoff>(address * BLOCK_SIZE));
    data_file.write(reinterpret_cast<const char*>(buf), BLOCK_SIZE);
    data_file.flush();
    return !data_file.fail();
}

int RPMBSimulator::do_op(const Frame* req, unsigned long nreq, Frame* rsp, unsigned long nrsp) {
    if (!req || !rsp || nreq < 1 || nreq > MAX_FRAMES || nrsp < 1 || nrsp > MAX_FRAMES) {
        errno = EINVAL;
        return -1;
    }
    const uint16_t type = req[0].type();
    if (type == TYPE_DATA_READ) {
        memcpy(auth.nonce, req[0].nonce, NONCE_SIZE);
        return do_data_read(req, rsp, req[0].address(), nrsp);
    }
    if (type == TYPE_COUNTER_READ && nrsp == 1) {
        memcpy(auth.nonce, req[0].nonce, NONCE_SIZE);
        return do_wrctr_read(req, rsp);
    }
    if (type == TYPE_DATA_WRITE && nrsp == 1)
        return do_data_write(req, nreq, rsp);
    errno = EINVAL;
    return -1;
}

int RPMBSimulator::do_wrctr_read(const Frame* req, Frame* rsp) {
    Frame expected{};
    expected.set_type(TYPE_COUNTER_READ);
    memcpy(expected.nonce, req->nonce, NONCE_SIZE);
    uint16_t result = RESULT_GENERAL_FAILURE;
    if (memcmp(&expected, req, sizeof(expected)) == 0)
        result = read_wrctr() ? RESULT_OK : RESULT_READ_FAILURE;
    if (counter == 0xFFFFFFFF)
        result |= RESULT_EXPIRED;

    rsp->clear();
    rsp->set_write_counter(counter);
    memcpy(rsp->nonce, req->nonce, NONCE_SIZE);
    rsp->set_type(TYPE_COUNTER_READ_RSP);
    if (auth.new_read_counter_rsp_mac(counter, result)) {
        memcpy(rsp->mac, auth.mac, MAC_SIZE);
        rsp->set_result(result);
    } else {
        rsp->set_result(RESULT_GENERAL_FAILURE);
    }
    return 0;
}

int RPMBSimulator::do_data_read(const Frame* req, Frame* rsp, unsigned long address,
                                unsigned long count) {
    const bool valid =
        all_zero(req->stuff, sizeof(req->stuff)) && all_zero(req->mac, sizeof(req->mac)) &&
        all_zero(req->data, sizeof(req->data)) && req->write_counter() == 0 &&
        req->block_count() == 0 && req->result() == 0 && req->type() == TYPE_DATA_READ;
    uint16_t result = RESULT_GENERAL_FAILURE;
    if (valid) {
        const bool out_of_range =
            address >= 0x10000 || count >= 0x10000 || address + count > size / BLOCK_SIZE;
        result = out_of_range ? RESULT_ADDRESS_FAILURE : RESULT_OK;
    }

    std::vector<unsigned char> collected(count * BLOCK_SIZE);
    for (unsigned long i = 0; i < count; ++i) {
        Frame& frame = rsp[i];
        frame.clear();
        memcpy(frame.nonce, auth.nonce, NONCE_SIZE);
        frame.set_type(TYPE_DATA_READ_RSP);
        frame.set_address(static_cast<uint16_t>(address));
        frame.set_block_count(static_cast<uint16_t>(count));
        frame.set_result(result);
        if (result == RESULT_OK) {
            if (read_block(frame.data, address + i))
                memcpy(&collected[i * BLOCK_SIZE], frame.data, BLOCK_SIZE);
            else
                result = RESULT_READ_FAILURE;  // the rest of the frames report it
        }
    }

    if (auth.new_read_rsp_mac(collected.data(), static_cast<uint16_t>(address),
                              static_cast<uint16_t>(count), result)) {
        memcpy(rsp[count - 1].mac, auth.mac, MAC_SIZE);
    } else {
        for (unsigned long i = 0; i < count; ++i)
            rsp[i].set_result(RESULT_AUTH_FAILURE);
    }
    return 0;
}

int RPMBSimulator::do_data_write(const Frame* req, unsigned long nreq, Frame* rsp) {
    const Frame& first = req[0];
    const uint16_t address = first.address();
    const uint16_t block_count = first.block_count();
    std::vector<unsigned char> collected;

    uint16_t result = RESULT_OK;
    if (nreq == 0)
        result = RESULT_GENERAL_FAILURE;
    if (result == RESULT_OK && (nreq > 2 || nreq != block_count))
        result = RESULT_GENERAL_FAILURE;
    for (unsigned long i = 0; result == RESULT_OK && i < nreq; ++i) {
        const Frame& frame = req[i];
        const bool last = i + 1 == nreq;
        if (!all_zero(frame.stuff, sizeof(frame.stuff)) ||
            (!last && !all_zero(frame.mac, sizeof(frame.mac))) ||
            !all_zero(frame.nonce, sizeof(frame.nonce)) ||
            frame.write_counter() != first.write_counter() || frame.address() != address ||
            frame.block_count() != block_count || frame.result() != 0 ||
            frame.type() != TYPE_DATA_WRITE)
            result = RESULT_GENERAL_FAILURE;
        else
            collected.insert(collected.end(), frame.data, frame.data + BLOCK_SIZE);
    }
    if (result == RESULT_OK && counter == 0xFFFFFFFF)
        result = RESULT_EXPIRED | RESULT_WRITE_FAILURE;
    if (result == RESULT_OK && uint64_t{address} + block_count > size / BLOCK_SIZE)
        result = RESULT_ADDRESS_FAILURE;
    // A two-block write must start at an even block.
    if (result == RESULT_OK && address % block_count != 0)
        result = RESULT_ADDRESS_FAILURE;
    if (result == RESULT_OK) {
        if (!auth.new_write_req_mac(collected.data(), first.write_counter(), address, block_count))
            result = RESULT_GENERAL_FAILURE;
        else if (memcmp(auth.mac, req[nreq - 1].mac, MAC_SIZE) != 0)
            result = RESULT_AUTH_FAILURE;
    }
    if (result == RESULT_OK && first.write_counter() != counter)
        result = RESULT_COUNTER_FAILURE;
    for (unsigned long i = 0; result == RESULT_OK && i < nreq; ++i) {
        if (!write_block(&collected[i * BLOCK_SIZE], address + i))
            result = RESULT_WRITE_FAILURE;
    }
    if (result == RESULT_OK) {
        ++counter;
        if (!write_wrctr())
            result = RESULT_GENERAL_FAILURE;
    }

    rsp->clear();
    rsp->set_write_counter(counter);
    rsp->set_address(address);
    rsp->set_type(TYPE_DATA_WRITE_RSP);
    if (auth.new_write_rsp_mac(counter, address, result)) {
        memcpy(rsp->mac, auth.mac, MAC_SIZE);
        rsp->set_result(result);
    } else {
        rsp->set_result(RESULT_GENERAL_FAILURE);
    }
    return 0;
}
