// Search and check of the fountain code's tables. Runs from seconds to an hour; not part of the
// tests, which check samples of the same properties.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "fountain/binary_echelon.h"
#include "fountain/code_rows.h"
#include "fountain/matrix_solver.h"

namespace {

using namespace ox::fountain;

constexpr uint32_t kSeedLimit = 256;  // the tables hold bytes

bool encoder_solves(const CodeParams& params, MatrixSolver& solver) {
    solver.reset(params);
    for (uint32_t id = 0; id < params.block_count; ++id)
        solver.add_row(id);
    return solver.solve();
}

/// Receives blocks over a channel that loses 5 to 90 % of them, until the message is restored.
/// Returns how many blocks more than block_count that took, at most 100.
uint32_t extra_blocks(const CodeParams& params, MatrixSolver& solver, std::mt19937_64& random) {
    const double loss = std::uniform_real_distribution<double>(0.05, 0.9)(random);
    std::geometric_distribution<uint32_t> lost(1 - loss);
    uint32_t id = 0;
    const auto next_id = [&] {
        id += lost(random);
        return id++;
    };
    solver.reset(params);
    for (uint32_t i = 0; i < params.block_count; ++i)
        solver.add_row(next_id());
    bool solved = solver.solve();
    uint32_t extra = 0;
    for (; !solved && extra < 100; ++extra) {
        bool kept = false;
        solved = solver.add_extra_row(next_id(), kept);
    }
    return extra;
}

/// The repair blocks 4 and 5 of four source blocks: do any four of the six pieces suffice?
bool all_pairs_restore(const CodeParams& params, MatrixSolver& solver) {
    for (uint32_t first = 0; first < 6; ++first) {
        for (uint32_t second = first + 1; second < 6; ++second) {
            solver.reset(params);
            for (uint32_t id = 0; id < 6; ++id) {
                if (id != first && id != second) solver.add_row(id);
            }
            if (!solver.solve()) return false;
        }
    }
    return true;
}

bool dense_pattern_has_full_rank(uint16_t dense_count, uint32_t seed) {
    const CodeParams params = code_params_with(dense_count, dense_count, 0, seed);
    const size_t words = (dense_count + 63U) / 64U;
    std::vector<uint64_t> rows(dense_count * words);
    std::vector<uint64_t> sum(words);
    walk_dense_rows(
        params, [&] { std::fill(sum.begin(), sum.end(), uint64_t{0}); },
        [&](uint16_t column) { sum[column / 64U] ^= uint64_t{1} << (column % 64U); },
        [&](uint16_t row) {
            for (size_t i = 0; i < words; ++i)
                rows[row * words + i] ^= sum[i];
        });
    BinaryEchelon echelon;
    echelon.reset(dense_count, dense_count);
    for (uint16_t row = 0; row < dense_count; ++row) {
        if (echelon.insert({rows.data() + row * words, words}, row) == BinaryEchelon::kNone) {
            return false;
        }
    }
    return true;
}

int search_dense_seeds() {
    for (size_t i = 0; i < kDenseSeeds.size(); ++i) {
        const auto dense_count = static_cast<uint16_t>(4 * i + 2);
        uint32_t seed = 0;
        while (seed < kSeedLimit && !dense_pattern_has_full_rank(dense_count, seed))
            ++seed;
        if (seed == kSeedLimit) return 1;
        std::printf("%u,\n", seed);
    }
    return 0;
}

/// Of `candidates` usable seeds the one with the least overhead.
uint32_t best_small_seed(uint32_t block_count, uint32_t candidates, uint32_t trials) {
    MatrixSolver solver;
    CodeParams params = code_params(block_count);
    uint64_t least = UINT64_MAX;
    uint32_t best = kSeedLimit;
    for (uint32_t seed = 0; seed < kSeedLimit && candidates > 0; ++seed) {
        params.peel_seed = seed;
        if (!encoder_solves(params, solver)) continue;
        if (block_count == 4 && !all_pairs_restore(params, solver)) continue;
        --candidates;
        std::mt19937_64 random(block_count);
        uint64_t extra = 0;
        for (uint32_t i = 0; i < trials && extra < least; ++i) {
            extra += extra_blocks(params, solver, random);
        }
        if (extra >= least) continue;
        least = extra;
        best = seed;
    }
    std::fprintf(stderr, "%u blocks, %u dense rows: seed %u, overhead %.4f\n", block_count,
                 params.dense_count, best, static_cast<double>(least) / trials);
    return best;
}

int search_small_seeds(uint32_t from, uint32_t to, uint32_t candidates, uint32_t trials) {
    for (uint32_t block_count = from; block_count <= to; ++block_count) {
        const uint32_t seed = best_small_seed(block_count, candidates, trials);
        if (seed == kSeedLimit) return 1;
        std::printf("%u,\n", seed);
        std::fflush(stdout);
    }
    return 0;
}

/// Prints the block counts whose encoder cannot use seed 0, each with the first seed that it can.
int search_exceptions(uint32_t from, uint32_t to) {
    MatrixSolver solver;
    for (uint32_t block_count = from; block_count <= to; ++block_count) {
        CodeParams params = code_params(block_count);
        params.peel_seed = 0;
        while (params.peel_seed < kSeedLimit && !encoder_solves(params, solver)) {
            ++params.peel_seed;
        }
        if (params.peel_seed == kSeedLimit) return 1;
        if (params.peel_seed == 0) continue;
        std::printf("{%u, %u},\n", block_count, params.peel_seed);
        std::fflush(stdout);
    }
    std::printf("done\n");
    return 0;
}

int verify_encoders(uint32_t from, uint32_t to) {
    MatrixSolver solver;
    uint32_t failures = 0;
    for (uint32_t block_count = from; block_count <= to; ++block_count) {
        if (encoder_solves(choose_code(block_count), solver)) continue;
        ++failures;
        std::printf("%u blocks: no encoder\n", block_count);
    }
    std::printf("%u .. %u blocks: %u without an encoder\n", from, to, failures);
    return failures == 0 ? 0 : 1;
}

int measure_overhead(uint32_t block_count, uint32_t trials) {
    MatrixSolver solver;
    std::mt19937_64 random(block_count);
    const CodeParams params = choose_code(block_count);
    uint64_t total = 0;
    uint32_t one_or_more = 0;
    uint32_t two_or_more = 0;
    for (uint32_t i = 0; i < trials; ++i) {
        const uint32_t extra = extra_blocks(params, solver, random);
        total += extra;
        one_or_more += extra >= 1 ? 1 : 0;
        two_or_more += extra >= 2 ? 1 : 0;
    }
    std::printf("N %5u  dense %3u  trials %6u  overhead %.4f  NeedMore %.4f  twice %.5f\n",
                block_count, params.dense_count, trials, static_cast<double>(total) / trials,
                static_cast<double>(one_or_more) / trials,
                static_cast<double>(two_or_more) / trials);
    std::fflush(stdout);
    return 0;
}

int usage() {
    std::fputs(
        "usage: ox_fountain_search dense-seeds\n"
        "       ox_fountain_search small-seeds <from> <to> <candidates> <trials>\n"
        "       ox_fountain_search exceptions <from> <to>\n"
        "       ox_fountain_search verify <from> <to>\n"
        "       ox_fountain_search overhead <trials> <block count>...\n",
        stderr);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage();
    const std::string mode = argv[1];
    std::vector<uint32_t> numbers;
    for (int i = 2; i < argc; ++i) {
        numbers.push_back(static_cast<uint32_t>(std::strtoul(argv[i], nullptr, 10)));
    }
    if (mode == "dense-seeds" && numbers.empty()) return search_dense_seeds();
    if (mode == "small-seeds" && numbers.size() == 4) {
        return search_small_seeds(numbers[0], numbers[1], numbers[2], numbers[3]);
    }
    if (mode == "exceptions" && numbers.size() == 2) {
        return search_exceptions(numbers[0], numbers[1]);
    }
    if (mode == "verify" && numbers.size() == 2) return verify_encoders(numbers[0], numbers[1]);
    if (mode == "overhead" && numbers.size() >= 2) {
        for (size_t i = 1; i < numbers.size(); ++i)
            measure_overhead(numbers[i], numbers[0]);
        return 0;
    }
    return usage();
}
