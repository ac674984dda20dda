#pragma once

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "RPMB.h"
#include "RPMBAuth.h"

// An RPMB kept in three files next to each other: base + ".key" (the 32-byte key),
// base + ".wrctr" (the big-endian write counter) and base + ".data" (the blocks). It
// answers frames as a card does, reporting every refusal in the response frame.
class RPMBSimulator : public RPMB {
  public:
    static constexpr unsigned long SIZE_UNIT = 0x20000;  // the card's size granularity
    static constexpr unsigned long MAX_SIZE = 0x1000000;

    RPMBSimulator() = default;
    ~RPMBSimulator() override;

    // Makes the files of a new simulated RPMB of `size` bytes, zero counter and data.
    static bool create(const std::string& base, const std::vector<unsigned char>& key,
                       unsigned long size);

    bool open(const std::string& base);
    void close();

    int do_op(const Frame* req, unsigned long nreq, Frame* rsp, unsigned long nrsp) override;

  private:
    bool read_wrctr();
    bool write_wrctr();
    bool read_block(unsigned char* buf, unsigned long address);
    bool write_block(const unsigned char* buf, unsigned long address);
    int do_wrctr_read(const Frame* req, Frame* rsp);
    int do_data_write(const Frame* req, unsigned long nreq, Frame* rsp);
    int do_data_read(const Frame* req, Frame* rsp, unsigned long address, unsigned long count);

    RPMBAuth auth;
    uint32_t counter = 0;
    uint64_t size = 0;
    std::fstream wrctr_file;
    std::fstream data_file;
};
