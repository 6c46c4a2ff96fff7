// Cost of encoding and decoding nbcp messages and neighbor lists, each beside a memcpy of the
// same number of bytes so the ratio reads off one run.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "proto/nbcp.h"

namespace {

ap_info sample_ap(uint32_t n, int radios) {
    ap_info info{};
    info.ip = 0xC0A80100 + n;
    info.ip6 = {0xFE, 0x80, 0,    0,    0,    0,    0,    0,
                0x02, 0x11, 0x22, 0xFF, 0xFE, 0x33, 0x44, static_cast<uint8_t>(n)};
    info.qv_ip = 0x0A000000 + n;
    info.mac = {0x00, 0x11, 0x22, 0x33, 0x44, static_cast<uint8_t>(n)};
    std::snprintf(info.tenantId, sizeof info.tenantId, "tenant-%04u", n % 7);
    info.state = 0;
    std::snprintf(info.version, sizeof info.version, "2.4.1.%u", 1000 + n);
    std::snprintf(info.name, sizeof info.name, "AP-Floor%u-Room%u", n % 9, n);
    info.radiocnt = static_cast<uint8_t>(radios);
    for (int i = 0; i < AP_RADIO_MAX; ++i) {
        info.radio[i] = {static_cast<uint8_t>(i), static_cast<uint8_t>(i == 0 ? 6 : 149), 20,
                         static_cast<uint8_t>(40 + i), static_cast<uint8_t>(i == 0 ? 20 : 80)};
    }
    info.pvc_ip = 0xC0A80101;
    info.cluster_id = 42;
    info.pvc_mac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x01};
    info.cluster_flag = 1;
    return info;
}

nbcp_ndrp sample_ndrp() {
    nbcp_ndrp rec{};
    rec.mode = 2;
    rec.ip = 0xC0A8010A;
    rec.mac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    return rec;
}

nbcp_ndsp sample_ndsp(int radios) {
    nbcp_ndsp rec{};
    rec.kind_flag = 1;
    rec.ip = 0xC0A8010A;
    rec.mac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    rec.info = sample_ap(10, radios);
    rec.pvc_ip = rec.info.pvc_ip;
    rec.cluster_id = rec.info.cluster_id;
    rec.pvc_mac = rec.info.pvc_mac;
    rec.cluster_flag = rec.info.cluster_flag;
    rec.info.pvc_ip = 0;
    rec.info.cluster_id = 0;
    rec.info.pvc_mac = {};
    rec.info.cluster_flag = 0;
    return rec;
}

std::vector<uint8_t> encoded_ndrp() {
    std::vector<uint8_t> out(NBCP_NDRP_LEN);
    nbcp_ndrp rec = sample_ndrp();
    out.resize(nbcp_build_ndrp(out.data(), &rec));
    return out;
}

std::vector<uint8_t> encoded_ndsp(int radios) {
    std::vector<uint8_t> out(NBCP_NDSP_MAX);
    nbcp_ndsp rec = sample_ndsp(radios);
    out.resize(nbcp_build_ndsp(out.data(), &rec));
    return out;
}

constexpr int LIST_APS = 72;  // a full table of 64 learned neighbors plus 8 static ones

uint32_t build_list(uint8_t *out, const std::vector<ap_info> &aps) {
    local_msg_hdr hdr{};
    uint32_t off = nbcp_list_put(out, nullptr, &hdr, NBCP_LIST_PIECE_HEADER);
    for (const ap_info &ap : aps) {
        off += nbcp_list_put(out + off, &ap, nullptr, NBCP_LIST_PIECE_ENTRY);
    }
    off += nbcp_list_put(out + off, nullptr, nullptr, NBCP_LIST_PIECE_END);
    return off;
}

std::vector<ap_info> sample_aps() {
    std::vector<ap_info> aps;
    for (int i = 0; i < LIST_APS; ++i) {
        aps.push_back(sample_ap(static_cast<uint32_t>(i), 2));
    }
    return aps;
}

std::vector<uint8_t> encoded_list() {
    std::vector<uint8_t> out(NBCP_LIST_MAX);
    out.resize(build_list(out.data(), sample_aps()));
    return out;
}

void copy_loop(benchmark::State &state, const std::vector<uint8_t> &src) {
    std::vector<uint8_t> dst(src.size());
    for (auto _ : state) {
        benchmark::DoNotOptimize(src.data());
        std::memcpy(dst.data(), src.data(), src.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * src.size()));
    state.counters["bytes"] = static_cast<double>(src.size());
}

// Standard output pointed at /dev/null while a printing decode runs, so the figure is the cost
// of formatting and writing the line, not of a terminal.
class stdout_to_null {
  public:
    stdout_to_null() {
        std::fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        int null_fd = open("/dev/null", O_WRONLY);
        dup2(null_fd, STDOUT_FILENO);
        close(null_fd);
    }
    ~stdout_to_null() {
        std::fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
    }
    stdout_to_null(const stdout_to_null &) = delete;
    stdout_to_null &operator=(const stdout_to_null &) = delete;

  private:
    int saved_;
};

// Decode as the receive path does it: clear what the previous decode wrote, then decode.
void decode_loop(benchmark::State &state, const std::vector<uint8_t> &dg, bool printing) {
    std::unique_ptr<nbcp_msg> msg(new nbcp_msg());
    nbcp_touched touched(msg.get());
    std::unique_ptr<stdout_to_null> quiet;
    if (printing) {
        quiet.reset(new stdout_to_null());
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(dg.data());
        touched.clear(msg.get());
        int r = printing ? nbcp_parse(dg.data(), dg.size(), msg.get(), &touched)
                         : nbcp_decode(dg.data(), dg.size(), msg.get(), &touched);
        benchmark::DoNotOptimize(r);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * dg.size()));
}

void BM_ndrp_memcpy(benchmark::State &state) {
    copy_loop(state, encoded_ndrp());
}

void BM_ndrp_build(benchmark::State &state) {
    nbcp_ndrp rec = sample_ndrp();
    uint8_t out[NBCP_NDRP_LEN];
    for (auto _ : state) {
        benchmark::DoNotOptimize(&rec);
        benchmark::DoNotOptimize(nbcp_build_ndrp(out, &rec));
        benchmark::ClobberMemory();
    }
}

void BM_ndrp_decode(benchmark::State &state) {
    decode_loop(state, encoded_ndrp(), false);
}
void BM_ndrp_parse_print(benchmark::State &state) {
    decode_loop(state, encoded_ndrp(), true);
}

void BM_ndsp_memcpy(benchmark::State &state) {
    copy_loop(state, encoded_ndsp(static_cast<int>(state.range(0))));
}

void BM_ndsp_build(benchmark::State &state) {
    nbcp_ndsp rec = sample_ndsp(static_cast<int>(state.range(0)));
    uint8_t out[NBCP_NDSP_MAX];
    for (auto _ : state) {
        benchmark::DoNotOptimize(&rec);
        benchmark::DoNotOptimize(nbcp_build_ndsp(out, &rec));
        benchmark::ClobberMemory();
    }
}

void BM_ndsp_decode(benchmark::State &state) {
    decode_loop(state, encoded_ndsp(static_cast<int>(state.range(0))), false);
}

void BM_ndsp_parse_print(benchmark::State &state) {
    decode_loop(state, encoded_ndsp(static_cast<int>(state.range(0))), true);
}

void BM_list72_memcpy(benchmark::State &state) {
    copy_loop(state, encoded_list());
}

void BM_list72_build(benchmark::State &state) {
    std::vector<ap_info> aps = sample_aps();
    std::vector<uint8_t> out(NBCP_LIST_MAX);
    for (auto _ : state) {
        benchmark::DoNotOptimize(aps.data());
        benchmark::DoNotOptimize(build_list(out.data(), aps));
        benchmark::ClobberMemory();
    }
}

// The reader's array must start zero-filled, so clearing it is part of each read.
void BM_list72_read(benchmark::State &state) {
    std::vector<uint8_t> reply = encoded_list();
    std::vector<ap_info> entries(LIST_APS);
    size_t n = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(reply.data());
        std::memset(entries.data(), 0, entries.size() * sizeof(ap_info));
        n = nbcp_list_read(reply.data(), reply.size(), entries.data(), entries.size());
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    // The reader's 12000-byte walk ends before the last entries of a long list.
    state.counters["entries_read"] = static_cast<double>(n);
}

}  // namespace

BENCHMARK(BM_ndrp_memcpy);
BENCHMARK(BM_ndrp_build);
BENCHMARK(BM_ndrp_decode);
BENCHMARK(BM_ndrp_parse_print);
BENCHMARK(BM_ndsp_memcpy)->Arg(0)->Arg(4);
BENCHMARK(BM_ndsp_build)->Arg(0)->Arg(4);
BENCHMARK(BM_ndsp_decode)->Arg(0)->Arg(4);
BENCHMARK(BM_ndsp_parse_print)->Arg(0)->Arg(4);
BENCHMARK(BM_list72_memcpy);
BENCHMARK(BM_list72_build);
BENCHMARK(BM_list72_read);
