// Uses the installed headers and library; exits 0 when the calls give what they should.
#include <msplatform.h>

#include <cstdio>

int main() {
    if (StrCaseCmp("MediaServer", "mediaserver") != 0) {
        std::puts("StrCaseCmp failed");
        return 1;
    }
    std::puts("consumer ok");
    return 0;
}
