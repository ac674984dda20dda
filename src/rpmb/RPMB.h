#pragma once

#include <cstddef>
#include <cstdint>

// Access to an eMMC Replay Protected Memory Block through JEDEC data frames. Subclasses
// move the frames (a real card or files); this class builds requests and reads responses.
class RPMB {
  public:
    static constexpr size_t BLOCK_SIZE = 256;
    static constexpr size_t MAC_SIZE = 32;
    static constexpr size_t KEY_SIZE = 32;
    static constexpr size_t NONCE_SIZE = 16;
    // The most frames one operation can move: the block count field is 16 bits wide.
    static constexpr unsigned long MAX_FRAMES = 65535;

    // Request and response types.
    static constexpr uint16_t TYPE_KEY_PROGRAM = 0x0001;
    static constexpr uint16_t TYPE_COUNTER_READ = 0x0002;
    static constexpr uint16_t TYPE_DATA_WRITE = 0x0003;
    static constexpr uint16_t TYPE_DATA_READ = 0x0004;
    static constexpr uint16_t TYPE_RESULT_READ = 0x0005;
    static constexpr uint16_t TYPE_COUNTER_READ_RSP = 0x0200;
    static constexpr uint16_t TYPE_DATA_WRITE_RSP = 0x0300;
    static constexpr uint16_t TYPE_DATA_READ_RSP = 0x0400;

    // Result codes; RESULT_EXPIRED may be or-ed into any of them.
    static constexpr uint16_t RESULT_OK = 0x00;
    static constexpr uint16_t RESULT_GENERAL_FAILURE = 0x01;
    static constexpr uint16_t RESULT_AUTH_FAILURE = 0x02;
    static constexpr uint16_t RESULT_COUNTER_FAILURE = 0x03;
    static constexpr uint16_t RESULT_ADDRESS_FAILURE = 0x04;
    static constexpr uint16_t RESULT_WRITE_FAILURE = 0x05;
    static constexpr uint16_t RESULT_READ_FAILURE = 0x06;
    static constexpr uint16_t RESULT_EXPIRED = 0x80;

    // One 512-byte data frame as it travels to and from the card. Multi-byte fields are
    // big-endian on the wire and only reached through the accessors.
    struct Frame {
        // Start and length of the bytes that the MAC covers (data up to the type).
        static constexpr size_t MAC_INPUT_OFFSET = 228;
        static constexpr size_t MAC_INPUT_SIZE = 284;

        unsigned char stuff[196];
        unsigned char mac[MAC_SIZE];
        unsigned char data[BLOCK_SIZE];
        unsigned char nonce[NONCE_SIZE];
        unsigned char write_counter_be[4];
        unsigned char address_be[2];
        unsigned char block_count_be[2];
        unsigned char result_be[2];
        unsigned char type_be[2];

        uint32_t write_counter() const { return get32(write_counter_be); }
        uint16_t address() const { return get16(address_be); }
        uint16_t block_count() const { return get16(block_count_be); }
        uint16_t result() const { return get16(result_be); }
        uint16_t type() const { return get16(type_be); }

        void set_write_counter(uint32_t v) { put32(write_counter_be, v); }
        void set_address(uint16_t v) { put16(address_be, v); }
        void set_block_count(uint16_t v) { put16(block_count_be, v); }
        void set_result(uint16_t v) { put16(result_be, v); }
        void set_type(uint16_t v) { put16(type_be, v); }

        void clear();
        const unsigned char* mac_input() const { return data; }

      private:
        static uint16_t get16(const unsigned char* p) {
            return static_cast<uint16_t>(p[0] << 8 | p[1]);
        }
        static uint32_t get32(const unsigned char* p) {
            return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
        }
        static void put16(unsigned char* p, uint16_t v) {
            p[0] = static_cast<unsigned char>(v >> 8);
            p[1] = static_cast<unsigned char>(v);
        }
        static void put32(unsigned char* p, uint32_t v) {
            put16(p, static_cast<uint16_t>(v >> 16));
            put16(p + 2, static_cast<uint16_t>(v));
        }
    };

    RPMB() = default;
    RPMB(const RPMB&) = delete;
    RPMB& operator=(const RPMB&) = delete;
    virtual ~RPMB() = default;

    // Sends `nreq` request frames and receives `nrsp` response frames as one operation.
    // 0 on success, -1 with errno otherwise; the result codes are left to the caller.
    virtual int do_op(const Frame* req, unsigned long nreq, Frame* rsp, unsigned long nrsp) = 0;

    // The operations below return 0 on success, the card's result code when it reported
    // one, or -1 with errno (EINVAL for bad arguments, EILSEQ for an unexpected response).

    // Reads the write counter; a null nonce sends zeros. The counter is stored whatever
    // the result; `mac` (optional) receives the response MAC.
    int read_counter(const unsigned char* nonce, unsigned int* counter, unsigned char* mac);
    // Reads `count` blocks from `address` into `data` (count * 256 bytes); `mac` receives
    // the MAC of the last response frame.
    int read(unsigned long address, unsigned long count, const unsigned char* nonce,
             unsigned char* data, unsigned char* mac);
    // Writes one or two blocks with a MAC made by the key holder for `counter`.
    int write(unsigned long address, unsigned long count, unsigned int counter,
              const unsigned char* data, const unsigned char* mac, unsigned char* rsp_mac,
              unsigned int* rsp_counter, unsigned short* rsp_address);
};

static_assert(sizeof(RPMB::Frame) == 512, "an RPMB frame is 512 bytes");
static_assert(offsetof(RPMB::Frame, data) == RPMB::Frame::MAC_INPUT_OFFSET,
              "the MAC covers the frame from its data on");
