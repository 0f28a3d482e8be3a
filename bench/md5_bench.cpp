// MD5: MD5Init + MD5Update + MD5Final over one message, against OpenSSL's one-shot MD5 on the same bytes.
#include <string.h>

#include <memory>
#include <vector>

#include "bench.h"
#include "msplatform/md5.h"

#ifdef MSPB_HAVE_OPENSSL
namespace mspb {
// In md5_openssl.cpp: OpenSSL's header has an MD5_CTX of its own.
void OpensslMd5(const unsigned char* data, size_t size, unsigned char* digest);
}  // namespace mspb
#endif

namespace {

const char kOperation[] = "MD5Update+MD5Final";

void RegisterAll() {
    for (size_t size : {mspb::Size(64, 64), mspb::Size(4 << 10, 128), mspb::Size(16 << 20, 1024)}) {
        auto data = std::make_shared<std::vector<unsigned char>>(size);
        mspb::Random random(0x5EED0006);
        for (auto& byte : *data) byte = static_cast<unsigned char>(random.next());
        const std::string input = mspb::SizeName(size);

        mspb::Add(kOperation, input, "msplatform", [data](benchmark::State& state) {
            unsigned char digest[16];
            for (auto _ : state) {
                MD5_CTX context;
                MD5Init(&context);
                MD5Update(&context, data->data(), static_cast<unsigned int>(data->size()));
                MD5Final(digest, &context);
                benchmark::DoNotOptimize(digest);
            }
            state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data->size()));
        });

#ifdef MSPB_HAVE_OPENSSL
        {
            unsigned char ours[16], theirs[16];
            MD5_CTX context;
            MD5Init(&context);
            MD5Update(&context, data->data(), static_cast<unsigned int>(data->size()));
            MD5Final(ours, &context);
            mspb::OpensslMd5(data->data(), data->size(), theirs);
            if (memcmp(ours, theirs, 16) != 0) mspb::Fail("OpenSSL gives another digest");
        }
        mspb::Add(kOperation, input, "OpenSSL_MD5", [data](benchmark::State& state) {
            unsigned char digest[16];
            for (auto _ : state) {
                mspb::OpensslMd5(data->data(), data->size(), digest);
                benchmark::DoNotOptimize(digest);
            }
            state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data->size()));
        });
#endif
    }
}

mspb::Registrar registrar(RegisterAll);

}  // namespace
