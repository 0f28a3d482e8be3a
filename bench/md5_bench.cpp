// MD5 throughput: hashes a buffer that stays in cache many times and prints MB/s for a few update sizes.
#include <stdio.h>
#include <time.h>

#include <vector>

#include "msplatform/md5.h"

namespace {

double Seconds() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

}  // namespace

int main() {
    const size_t kTotal = size_t(1) << 30;  // bytes hashed per measurement
    const unsigned kSizes[] = {64, 1024, 16 * 1024, 1024 * 1024};
    std::vector<unsigned char> data(1024 * 1024);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 131 + 7);

    unsigned char digest[16];
    for (unsigned size : kSizes) {
        double best = 0;
        for (int round = 0; round < 3; ++round) {
            MD5_CTX context;
            MD5Init(&context);
            const double start = Seconds();
            for (size_t done = 0; done < kTotal; done += size) MD5Update(&context, data.data(), size);
            MD5Final(digest, &context);
            const double rate = kTotal / (Seconds() - start) / 1e6;
            if (rate > best) best = rate;
        }
        printf("MD5Update of %7u bytes: %7.1f MB/s (digest byte %02x)\n", size, best, digest[0]);
    }
    return 0;
}
