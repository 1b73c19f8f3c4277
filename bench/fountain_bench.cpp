// Throughput of the fountain code and of the audio stream's 4 + 2 blocks, the latter next to
// ISA-L's Reed-Solomon code where that library is installed.

#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "fountain/wirehair.h"

#if OX_HAVE_ISAL
#include <isa-l.h>
#endif

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kLargeBlock = 1024;

Bytes random_bytes(size_t count) {
    std::mt19937 random(1);
    Bytes bytes(count);
    for (uint8_t& byte : bytes)
        byte = static_cast<uint8_t>(random());
    return bytes;
}

Bytes block_of(WirehairCodec encoder, uint32_t id, uint32_t block_bytes) {
    Bytes block(block_bytes);
    uint32_t written = 0;
    wirehair_encode(encoder, id, block.data(), block_bytes, &written);
    return block;
}

/// The message to the first repair block.
void encode_message(benchmark::State& state) {
    const auto block_count = static_cast<uint32_t>(state.range(0));
    const Bytes message = random_bytes(size_t{block_count} * kLargeBlock);
    Bytes block(kLargeBlock);
    uint32_t written = 0;
    for (auto _ : state) {
        const WirehairCodecPtr encoder(
            wirehair_encoder_create(nullptr, message.data(), message.size(), kLargeBlock));
        wirehair_encode(encoder.get(), block_count, block.data(), kLargeBlock, &written);
        benchmark::DoNotOptimize(block.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(message.size()));
}

/// Repair blocks of an encoder that is set up.
void encode_repair_blocks(benchmark::State& state) {
    const auto block_count = static_cast<uint32_t>(state.range(0));
    const Bytes message = random_bytes(size_t{block_count} * kLargeBlock);
    const WirehairCodecPtr encoder(
        wirehair_encoder_create(nullptr, message.data(), message.size(), kLargeBlock));
    Bytes block(kLargeBlock);
    uint32_t written = 0;
    uint32_t id = block_count;
    for (auto _ : state) {
        wirehair_encode(encoder.get(), id++, block.data(), kLargeBlock, &written);
        benchmark::DoNotOptimize(block.data());
    }
    state.SetBytesProcessed(state.iterations() * kLargeBlock);
}

/// The received blocks to the message, a tenth of the source blocks being lost.
void decode_message(benchmark::State& state) {
    const auto block_count = static_cast<uint32_t>(state.range(0));
    const Bytes message = random_bytes(size_t{block_count} * kLargeBlock);
    const WirehairCodecPtr encoder(
        wirehair_encoder_create(nullptr, message.data(), message.size(), kLargeBlock));
    const uint32_t repairs = block_count / 10;
    std::vector<uint32_t> ids;
    std::vector<Bytes> blocks;
    for (uint32_t id = 0; id < block_count + repairs + 20; ++id) {
        if (id < block_count && id % 10 == 3) continue;
        ids.push_back(id);
        blocks.push_back(block_of(encoder.get(), id, kLargeBlock));
    }
    Bytes restored(message.size());
    for (auto _ : state) {
        const WirehairCodecPtr decoder(
            wirehair_decoder_create(nullptr, message.size(), kLargeBlock));
        WirehairResult result = Wirehair_NeedMore;
        for (size_t i = 0; result == Wirehair_NeedMore && i < ids.size(); ++i) {
            result = wirehair_decode(decoder.get(), ids[i], blocks[i].data(), kLargeBlock);
        }
        wirehair_recover(decoder.get(), restored.data(), restored.size());
        if (restored != message) return state.SkipWithError("not restored");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(message.size()));
}

void block_counts(benchmark::internal::Benchmark* bench) {
    for (const int64_t count : {10, 100, 1000, 10000, 64000})
        bench->Arg(count);
}

BENCHMARK(encode_message)->Apply(block_counts)->Unit(benchmark::kMicrosecond);
BENCHMARK(encode_repair_blocks)->Apply(block_counts);
BENCHMARK(decode_message)->Apply(block_counts)->Unit(benchmark::kMicrosecond);

void shard_lengths(benchmark::internal::Benchmark* bench) {
    for (const int64_t bytes : {80, 160, 1146})
        bench->Arg(bytes);
}

/// Two repair symbols for four frames, codec creation included, as the audio stream calls it.
void encode_four_plus_two(benchmark::State& state) {
    const auto bytes = static_cast<uint32_t>(state.range(0));
    const Bytes message = random_bytes(size_t{4} * bytes);
    Bytes repair(size_t{2} * bytes);
    uint32_t written = 0;
    for (auto _ : state) {
        const WirehairCodecPtr encoder(
            wirehair_encoder_create(nullptr, message.data(), message.size(), bytes));
        wirehair_encode(encoder.get(), 4, repair.data(), bytes, &written);
        wirehair_encode(encoder.get(), 5, repair.data() + bytes, bytes, &written);
        benchmark::DoNotOptimize(repair.data());
    }
}

/// Frames 1 and 2 from the other two and both repair symbols.
void decode_two_lost_of_four(benchmark::State& state) {
    const auto bytes = static_cast<uint32_t>(state.range(0));
    const Bytes message = random_bytes(size_t{4} * bytes);
    const WirehairCodecPtr encoder(
        wirehair_encoder_create(nullptr, message.data(), message.size(), bytes));
    constexpr std::array<uint32_t, 4> kIds{0, 3, 4, 5};
    std::vector<Bytes> blocks;
    for (const uint32_t id : kIds)
        blocks.push_back(block_of(encoder.get(), id, bytes));
    Bytes restored(message.size());
    for (auto _ : state) {
        const WirehairCodecPtr decoder(wirehair_decoder_create(nullptr, message.size(), bytes));
        for (size_t i = 0; i < kIds.size(); ++i) {
            wirehair_decode(decoder.get(), kIds[i], blocks[i].data(), bytes);
        }
        wirehair_recover(decoder.get(), restored.data(), restored.size());
        benchmark::DoNotOptimize(restored.data());
    }
    if (restored != message) state.SkipWithError("not restored");
}

BENCHMARK(encode_four_plus_two)->Apply(shard_lengths);
BENCHMARK(decode_two_lost_of_four)->Apply(shard_lengths);

#if OX_HAVE_ISAL

constexpr int kData = 4;
constexpr int kParity = 2;
constexpr size_t kTable = 32;  ///< bytes of ISA-L's expanded table per factor

struct Pieces {
    explicit Pieces(size_t bytes) : memory(random_bytes(6 * bytes)) {
        for (size_t i = 0; i < pointers.size(); ++i)
            pointers[i] = memory.data() + i * bytes;
    }
    Bytes memory;
    std::array<uint8_t*, kData + kParity> pointers{};
};

void isal_encode_four_plus_two(benchmark::State& state) {
    const auto bytes = static_cast<size_t>(state.range(0));
    Pieces pieces(bytes);
    std::array<uint8_t, (kData + kParity) * kData> matrix{};
    std::array<uint8_t, kParity * kData * kTable> tables{};
    gf_gen_cauchy1_matrix(matrix.data(), kData + kParity, kData);
    ec_init_tables(kData, kParity, matrix.data() + kData * kData, tables.data());
    for (auto _ : state) {
        ec_encode_data(static_cast<int>(bytes), kData, kParity, tables.data(),
                       pieces.pointers.data(), pieces.pointers.data() + kData);
        benchmark::ClobberMemory();
    }
}

/// Matrix inversion and table expansion included: which two are lost is new each time.
void isal_decode_two_lost_of_four(benchmark::State& state) {
    const auto bytes = static_cast<size_t>(state.range(0));
    Pieces pieces(bytes);
    std::array<uint8_t, (kData + kParity) * kData> matrix{};
    gf_gen_cauchy1_matrix(matrix.data(), kData + kParity, kData);
    constexpr std::array<size_t, kData> kIds{0, 3, 4, 5};
    std::array<uint8_t*, kData> sources{};
    for (size_t i = 0; i < kIds.size(); ++i)
        sources[i] = pieces.pointers[kIds[i]];
    Bytes restored(2 * bytes);
    std::array<uint8_t*, kParity> targets{restored.data(), restored.data() + bytes};
    for (auto _ : state) {
        std::array<uint8_t, kData * kData> received{};
        std::array<uint8_t, kData * kData> inverse{};
        std::array<uint8_t, kParity * kData * kTable> tables{};
        for (size_t i = 0; i < kIds.size(); ++i) {
            std::copy_n(matrix.data() + kIds[i] * kData, kData, received.data() + i * kData);
        }
        gf_invert_matrix(received.data(), inverse.data(), kData);
        ec_init_tables(kData, kParity, inverse.data() + kData, tables.data());
        ec_encode_data(static_cast<int>(bytes), kData, kParity, tables.data(), sources.data(),
                       targets.data());
        benchmark::ClobberMemory();
    }
}

BENCHMARK(isal_encode_four_plus_two)->Apply(shard_lengths);
BENCHMARK(isal_decode_two_lost_of_four)->Apply(shard_lengths);

#endif

}  // namespace

int main(int argc, char** argv) {
    if (wirehair_init() != Wirehair_Success) return 1;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
