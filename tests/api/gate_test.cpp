// The request gate on a clock of our own: the rate window, the on-way hold
// and their shared stamp, with -2 and -3 at exactly the right call.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "api/tradeapi.h"
#include "tests/support/data_file.h"

namespace {

using Flux = Api::TradeApi::FluxValue;

void reset(Flux& flux, uint32_t per_second, uint32_t on_way) {
    flux.sent = flux.window_base = 0;
    flux.answered.store(0);
    flux.stamp = 0;
    flux.max_per_second = per_second;
    flux.max_on_way = on_way;
}

// A request as the trader makes it: the gate, then the count.
int pass(Flux& flux, uint64_t now) {
    int result = Api::control_flux(&flux, now);
    if (result == 0) ++flux.sent;
    return result;
}

const uint64_t T0 = 1700000000000ull;  // ms

// The window, the hold and their shared stamp, step by step from data/gate.txt.
TEST(Gate, RefusesAtExactlyTheRightCall) {
    Flux flux;
    int line = 0;
    for (const auto& row : test_data::rows("api/data/gate.txt")) {
        SCOPED_TRACE(++line);
        const std::string op = row[0];
        const unsigned long a = test_data::number(row[1]);
        if (op == "limits") {
            reset(flux, static_cast<uint32_t>(a), static_cast<uint32_t>(test_data::number(row[2])));
        } else if (op == "pass") {
            EXPECT_EQ(pass(flux, T0 + a), std::atoi(row[2]));
        } else if (op == "passes") {
            for (unsigned long i = 0; i < a; ++i)
                ASSERT_EQ(pass(flux, T0 + test_data::number(row[2]) + i * test_data::number(row[3])), 0) << i;
        } else if (op == "answered") {
            flux.answered.store(static_cast<uint32_t>(a));
        } else if (op == "stamp") {
            EXPECT_EQ(flux.stamp, T0 + a);
        } else if (op == "base") {
            EXPECT_EQ(flux.window_base, a);
        } else {
            ASSERT_EQ(op, "sent");
            EXPECT_EQ(flux.sent, a);
        }
    }
    EXPECT_GT(line, 30);
}

TEST(Gate, ZeroLimitsSwitchTheGateOff) {
    Flux flux;
    reset(flux, 0, 0);
    for (int i = 0; i < 100000; ++i) ASSERT_EQ(pass(flux, T0), 0);
    // Counters that wrapped don't matter either: only differences count.
    reset(flux, 2, 2);
    flux.sent = 0xFFFFFFFFu;
    flux.answered.store(0xFFFFFFFEu);
    flux.window_base = 0xFFFFFFFFu;
    EXPECT_EQ(pass(flux, T0), 0);  // opens a window
    EXPECT_EQ(flux.sent, 0u);
    EXPECT_EQ(pass(flux, T0 + 1), -2);
}

// A burst of 10,000 calls, one every 2 ms over 20 s, with an answer every
// third call: no gate window lets more than 64 through, and never more than 32
// are unanswered.
TEST(Gate, ABurstStaysWithinBothLimits) {
    Flux flux;
    reset(flux, 64, 32);
    uint64_t window_start = 0;
    int in_window = 0, most_in_window = 0, passed = 0;
    uint32_t most_on_way = 0;
    for (int i = 0; i < 10000; ++i) {
        uint64_t now = T0 + static_cast<uint64_t>(i) * 2;
        if (i % 3 == 0 && flux.answered.load() < flux.sent) flux.answered.store(flux.answered.load() + 1);
        uint64_t stamp = flux.stamp;
        if (pass(flux, now) != 0) continue;
        if (flux.stamp != stamp) {
            window_start = flux.stamp;
            in_window = 0;
        }
        most_in_window = std::max(most_in_window, ++in_window);
        most_on_way = std::max(most_on_way, flux.sent - flux.answered.load());
        ++passed;
        EXPECT_LE(now, window_start + 1000);
    }
    EXPECT_LE(most_in_window, 64);
    EXPECT_LE(most_on_way, 32u);
    EXPECT_GT(passed, 20 * 32);  // many windows and holds went by
}

}  // namespace
