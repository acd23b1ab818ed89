// The Base64 codec beside OpenSSL's EVP and glib in the same run, as rows for bench/run: each
// with a result of its own: processor time, the best of several turns, since what else runs on the
// machine only ever adds.
#include "mail/Base64.h"

#include <glib.h>
#include <openssl/evp.h>
#include <time.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>

namespace {

constexpr int kTurns = 7;

double processorMicroseconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

double best(int rounds, const std::function<std::size_t()>& work) {
    double least = 1e300;
    std::size_t total = 0;
    for (int turn = 0; turn < kTurns; ++turn) {
        const double start = processorMicroseconds();
        for (int round = 0; round < rounds; ++round) total += work();
        least = std::min(least, (processorMicroseconds() - start) / rounds);
    }
    if (total == 0) std::exit(2);
    return least;
}

void printRow(const std::string& what, double ours, double openssl, double glib) {
    std::printf("%s\t%.2f of %.2f and %.2f µs\tfaster than OpenSSL's and glib's\t%s\n",
                what.c_str(), ours, openssl, glib, ours < std::min(openssl, glib) ? "ok" : "over");
    (void)std::fflush(stdout);  // A row that cannot be shown has nobody to be told to.
}

void compare(std::size_t size, int rounds) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 131 + i / 7);
    const std::string text = korvane::NewBase64Encode(bytes, korvane::LineSeparation::off);
    const auto* const raw = reinterpret_cast<const unsigned char*>(bytes.data());
    const auto* const encoded = reinterpret_cast<const unsigned char*>(text.data());
    const std::string of = " of " + std::to_string(size) + " bytes";
    printRow(
        "Base64: encoding" + of,
        best(rounds,
             [&] { return korvane::NewBase64Encode(bytes, korvane::LineSeparation::off).size(); }),
        best(rounds,
             [&] {
                 std::string room(text.size() + 4, '\0');
                 return static_cast<std::size_t>(EVP_EncodeBlock(
                     reinterpret_cast<unsigned char*>(room.data()), raw, static_cast<int>(size)));
             }),
        best(rounds, [&] {
            gchar* const theirs = g_base64_encode(raw, size);
            const std::size_t length = theirs == nullptr ? 0 : 1;
            g_free(theirs);
            return length;
        }));
    printRow("Base64: decoding" + of,
             best(rounds, [&] { return korvane::NewBase64Decode(text).size(); }),
             best(rounds,
                  [&] {
                      std::string room(text.size() + 4, '\0');
                      return static_cast<std::size_t>(
                          EVP_DecodeBlock(reinterpret_cast<unsigned char*>(room.data()), encoded,
                                          static_cast<int>(text.size())));
                  }),
             best(rounds, [&] {
                 gsize length = 0;
                 g_free(g_base64_decode(text.c_str(), &length));
                 return static_cast<std::size_t>(length);
             }));
}

}  // namespace

// A number of rounds as the argument: a short run that only shows that it works.
int main(int argumentCount, char** arguments) {
    const int rounds = argumentCount > 1 ? std::atoi(arguments[1]) : 20'000;
    compare(30, std::max(rounds * 10, 1));  // a password
    compare(3'000, std::max(rounds, 1));
    compare(300'000, std::max(rounds / 100, 1));
    return 0;
}
