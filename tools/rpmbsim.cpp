// rpmbsim: provisions and inspects an RPMB, simulated in files (BASE.key, BASE.wrctr,
// BASE.data) or, when BASE is a device node, a real eMMC RPMB partition.

#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "GLibPtr.h"
#include "ProcessCaps.h"
#include "RPMBAuth.h"
#include "RPMBDevice.h"
#include "RPMBSimulator.h"
#include "SysUtils.h"

namespace {

gchar* key_file = nullptr;
gchar* new_key_file = nullptr;
gint count = 1;
gchar* out_file = nullptr;

const GOptionEntry entries[] = {
    {"key-file", 'k', 0, G_OPTION_ARG_FILENAME, &key_file,
     "The 32-byte RPMB key (default for a simulator: BASE.key)", "FILE"},
    {"new-key", 'n', 0, G_OPTION_ARG_FILENAME, &new_key_file,
     "create: make a random key and save it to FILE", "FILE"},
    {"count", 'c', 0, G_OPTION_ARG_INT, &count, "read: number of blocks (default 1)", "N"},
    {"out", 'o', 0, G_OPTION_ARG_FILENAME, &out_file, "read: write the raw data to FILE", "FILE"},
    {}};

const char* const description =
    "Commands:\n"
    "  create BASE SIZE_UNITS     make a simulated RPMB of SIZE_UNITS x 128 KiB (1 to 128)\n"
    "                             with the key of --key-file or a new one saved to --new-key\n"
    "  info BASE                  print the write counter and the size\n"
    "  read BASE BLOCK            read --count blocks and check their MAC; hex dump or --out\n"
    "  write BASE BLOCK DATAFILE  write the 256 bytes of DATAFILE to BLOCK with the key\n"
    "  frames BASE NRSP           send the raw request frames read from standard input and\n"
    "                             write the NRSP raw response frames to standard output\n"
    "BASE may be an RPMB device node; --key-file is then needed to check MACs.\n";

G_GNUC_PRINTF(1, 2) int fail(const char* format, ...) {
    va_list args;
    va_start(args, format);
    fputs("rpmbsim: ", stderr);
    vfprintf(stderr, format, args);
    fputc('\n', stderr);
    va_end(args);
    return 1;
}

// Reports a failed GLib call; false.
bool failed(GError* error) {
    const GErrorPtr owned(error);
    fail("%s", owned->message);
    return false;
}

bool parse_number(const char* text, unsigned long min, unsigned long max, unsigned long* value) {
    guint64 parsed = 0;
    const bool ok = g_ascii_string_to_unsigned(text, 10, min, max, &parsed, nullptr);
    *value = parsed;
    return ok;
}

// The whole file, which must be exactly `size` bytes long.
bool read_exact(const char* path, size_t size, std::vector<unsigned char>* bytes) {
    gchar* contents = nullptr;
    gsize length = 0;
    GError* error = nullptr;
    if (!g_file_get_contents(path, &contents, &length, &error))
        return failed(error);
    const GCharPtr owned(contents);
    if (length != size) {
        fail("'%s' holds %zu bytes instead of %zu", path, static_cast<size_t>(length), size);
        return false;
    }
    bytes->assign(contents, contents + length);
    return true;
}

bool write_file(const char* path, const unsigned char* data, size_t length, int mode) {
    GError* error = nullptr;
    return g_file_set_contents_full(path, reinterpret_cast<const char*>(data),
                                    static_cast<gssize>(length), G_FILE_SET_CONTENTS_CONSISTENT,
                                    mode, &error) ||
           failed(error);
}

int create(const char* base, const char* units_text) {
    unsigned long units = 0;
    if (!parse_number(units_text, 1, RPMBSimulator::MAX_SIZE / RPMBSimulator::SIZE_UNIT, &units))
        return fail("bad size '%s': give 1 to 128 units of 128 KiB", units_text);
    if (!key_file == !new_key_file)
        return fail("create needs exactly one of --key-file and --new-key");
    std::vector<unsigned char> key(RPMB::KEY_SIZE);
    if (key_file) {
        if (!read_exact(key_file, RPMB::KEY_SIZE, &key))
            return 1;
    } else if (!read_data_file("/dev/urandom", key.data(), key.size(), false)) {
        return fail("cannot read a random key: %s", strerror(errno));
    } else if (!write_file(new_key_file, key.data(), key.size(), 0600)) {
        return 1;
    }
    if (!RPMBSimulator::create(base, key, units * RPMBSimulator::SIZE_UNIT))
        return fail("cannot create simulated RPMB '%s': %s", base, strerror(errno));
    return 0;
}

// The RPMB behind `base`, and the key that checks its MACs in `auth` when `auth` is given.
std::unique_ptr<RPMB> open_rpmb(const char* base, RPMBAuth* auth) {
    const bool device = is_dev(base);
    std::unique_ptr<RPMB> rpmb;
    if (device) {
        auto dev = std::make_unique<RPMBDevice>();
        if (dev->open(base))
            rpmb = std::move(dev);
    } else {
        auto sim = std::make_unique<RPMBSimulator>();
        if (sim->open(base))
            rpmb = std::move(sim);
    }
    if (!rpmb) {
        fail("cannot open %s '%s': %s", device ? "RPMB device" : "simulated RPMB", base,
             strerror(errno));
        return nullptr;
    }
    if (auth) {
        if (device && !key_file) {
            fail("checking the MACs of a device needs --key-file");
            return nullptr;
        }
        std::vector<unsigned char> key;
        const std::string path = key_file ? key_file : std::string(base) + ".key";
        if (!read_exact(path.c_str(), RPMB::KEY_SIZE, &key))
            return nullptr;
        auth->set_key(key.data());
    }
    // The device is used as the daemon uses it: the capability raised only per command.
    if (device && !ProcessCaps::drop_all_except({CAP_SYS_RAWIO})) {
        fail("cannot drop capabilities: %s", strerror(errno));
        return nullptr;
    }
    return rpmb;
}

// Turns an operation's outcome into an exit status with a message.
int check(int rc, const char* what) {
    if (rc < 0)
        return fail("%s failed: %s", what, strerror(errno));
    static const char* const meanings[] = {"ok",
                                           "general failure",
                                           "authentication failure",
                                           "counter failure",
                                           "address failure",
                                           "write failure",
                                           "read failure"};
    const unsigned code = static_cast<unsigned>(rc) & 0x7F;
    if (rc > 0)
        return fail("%s failed: device result 0x%02x (%s%s)", what, static_cast<unsigned>(rc),
                    code < G_N_ELEMENTS(meanings) ? meanings[code] : "unknown",
                    rc & RPMB::RESULT_EXPIRED ? ", write counter expired" : "");
    return 0;
}

int check_mac(const RPMBAuth& auth, const unsigned char* mac, bool made, const char* what) {
    if (!made)
        return fail("cannot compute the MAC of the %s", what);
    if (memcmp(auth.mac, mac, RPMB::MAC_SIZE) != 0)
        return fail("the MAC of the %s does not match the key", what);
    return 0;
}

// Reads the counter with a fresh nonce and checks the answer's MAC.
int read_counter(RPMB& rpmb, RPMBAuth& auth, unsigned int* counter) {
    unsigned char mac[RPMB::MAC_SIZE];
    if (!auth.new_nonce())
        return fail("cannot make a nonce: %s", strerror(errno));
    const int rc = rpmb.read_counter(auth.nonce, counter, mac);
    if (rc < 0 || (rc & ~RPMB::RESULT_EXPIRED) != 0)
        return check(rc, "counter read");
    return check_mac(auth, mac, auth.new_read_counter_rsp_mac(*counter, rc), "counter read");
}

int info(const char* base) {
    RPMBAuth auth;
    const std::unique_ptr<RPMB> rpmb = open_rpmb(base, &auth);
    unsigned int counter = 0;
    if (!rpmb || read_counter(*rpmb, auth, &counter) != 0)
        return 1;
    printf("counter: %u%s\n", counter, counter == 0xFFFFFFFF ? " (expired)" : "");
    struct stat st;
    if (!is_dev(base) && stat((std::string(base) + ".data").c_str(), &st) == 0)
        printf("size: %lld bytes (%lld blocks)\n", static_cast<long long>(st.st_size),
               static_cast<long long>(st.st_size / RPMB::BLOCK_SIZE));
    return 0;
}

int read_blocks(const char* base, const char* block_text) {
    unsigned long block = 0;
    if (!parse_number(block_text, 0, 0xFFFF, &block))
        return fail("bad block '%s'", block_text);
    if (count < 1 || block + count > 0x10000)
        return fail("bad count %d for block %lu", count, block);
    RPMBAuth auth;
    const std::unique_ptr<RPMB> rpmb = open_rpmb(base, &auth);
    if (!rpmb)
        return 1;
    if (!auth.new_nonce())
        return fail("cannot make a nonce: %s", strerror(errno));
    std::vector<unsigned char> data(count * RPMB::BLOCK_SIZE);
    unsigned char mac[RPMB::MAC_SIZE];
    const auto n = static_cast<unsigned short>(count);
    if (check(rpmb->read(block, n, auth.nonce, data.data(), mac), "read") != 0 ||
        check_mac(auth, mac, auth.new_read_rsp_mac(data.data(), block, n, 0), "read") != 0)
        return 1;
    if (out_file)
        return write_file(out_file, data.data(), data.size(), 0644) ? 0 : 1;
    hex_dump(stdout, data.data(), data.size(), true);
    return 0;
}

int write_block(const char* base, const char* block_text, const char* data_file) {
    unsigned long block = 0;
    if (!parse_number(block_text, 0, 0xFFFF, &block))
        return fail("bad block '%s'", block_text);
    std::vector<unsigned char> data;
    if (!read_exact(data_file, RPMB::BLOCK_SIZE, &data))
        return 1;
    RPMBAuth auth;
    const std::unique_ptr<RPMB> rpmb = open_rpmb(base, &auth);
    unsigned int counter = 0;
    if (!rpmb || read_counter(*rpmb, auth, &counter) != 0)
        return 1;
    if (!auth.new_write_req_mac(data.data(), counter, block, 1))
        return fail("cannot compute the MAC of the write");
    unsigned char mac[RPMB::MAC_SIZE];
    unsigned int new_counter = 0;
    if (check(rpmb->write(block, 1, counter, data.data(), auth.mac, mac, &new_counter, nullptr),
              "write") != 0 ||
        check_mac(auth, mac, auth.new_write_rsp_mac(new_counter, block, 0), "write") != 0)
        return 1;
    printf("wrote block %lu, counter now %u\n", block, new_counter);
    return 0;
}

int relay_frames(const char* base, const char* nrsp_text) {
    unsigned long nrsp = 0;
    if (!parse_number(nrsp_text, 1, RPMB::MAX_FRAMES, &nrsp))
        return fail("bad response frame count '%s'", nrsp_text);
    std::vector<RPMB::Frame> req;
    RPMB::Frame frame;
    while (fread(&frame, sizeof(frame), 1, stdin) == 1)
        req.push_back(frame);
    if (req.empty() || req.size() > RPMB::MAX_FRAMES || !feof(stdin) || ferror(stdin))
        return fail("standard input must hold 1 to 65535 whole frames of 512 bytes");
    const std::unique_ptr<RPMB> rpmb = open_rpmb(base, nullptr);
    if (!rpmb)
        return 1;
    std::vector<RPMB::Frame> rsp(nrsp);
    if (check(rpmb->do_op(req.data(), req.size(), rsp.data(), nrsp), "operation") != 0)
        return 1;
    return fwrite(rsp.data(), sizeof(RPMB::Frame), nrsp, stdout) == nrsp ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const GOptionContextPtr context(g_option_context_new("COMMAND BASE [ARGUMENTS]"));
    g_option_context_set_summary(context.get(), "Provisions and inspects a simulated RPMB.");
    g_option_context_set_description(context.get(), description);
    g_option_context_add_main_entries(context.get(), entries, nullptr);
    GError* error = nullptr;
    if (!g_option_context_parse(context.get(), &argc, &argv, &error)) {
        const GErrorPtr owned(error);
        return fail("%s", owned->message);
    }
    const std::string command = argc > 1 ? argv[1] : "";
    const int nargs = argc - 2;
    if (command == "create" && nargs == 2)
        return create(argv[2], argv[3]);
    if (command == "info" && nargs == 1)
        return info(argv[2]);
    if (command == "read" && nargs == 2)
        return read_blocks(argv[2], argv[3]);
    if (command == "write" && nargs == 3)
        return write_block(argv[2], argv[3], argv[4]);
    if (command == "frames" && nargs == 2)
        return relay_frames(argv[2], argv[3]);
    return fail("bad command line; see --help");
}
