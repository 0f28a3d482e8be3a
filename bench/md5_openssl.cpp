// OpenSSL's one-shot MD5, in a file of its own: its header and the library's both define MD5_CTX.
#ifdef MSPB_HAVE_OPENSSL
#include <stddef.h>

// The low-level call is what a caller replacing MD5Update would write; OpenSSL 3 marks it deprecated.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/md5.h>

namespace mspb {

void OpensslMd5(const unsigned char* data, size_t size, unsigned char* digest) {
    MD5(data, size, digest);
}

}  // namespace mspb
#endif
