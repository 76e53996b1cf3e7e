// DorvexBase64Decode on arbitrary text. Besides the sanitizers, checks the
// decoder's promises: the needed length bounds what is written, a too small
// buffer is left alone, and a rejected text touches nothing.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "cms/adapt/adapt.h"
#include "fuzz/support.h"

namespace {

using fuzz_support::Check;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > INT32_MAX) {
        return 0;
    }
    // A copy of exactly the input's size, so a read past the end is caught.
    std::vector<uint8_t> src(data, data + size);
    int32_t srcLength = static_cast<int32_t>(size);

    uint32_t needed = 0;
    uint32_t rc = DorvexBase64Decode(src.data(), srcLength, nullptr, &needed);
    if (rc != DORVEX_OK) {
        Check(rc == DORVEX_ERR_BASE64);
        uint8_t canary[4] = {1, 2, 3, 4};
        uint32_t len = sizeof canary;
        Check(DorvexBase64Decode(src.data(), srcLength, canary, &len) == rc);
        Check(len == sizeof canary && memcmp(canary, "\1\2\3\4", 4) == 0);
        return 0;
    }
    Check(needed <= size);

    // One byte short of the need: nothing may be written.
    if (needed > 0) {
        std::vector<uint8_t> buffer(needed, 0x5A);
        uint32_t len = needed - 1;
        Check(DorvexBase64Decode(src.data(), srcLength, buffer.data(), &len) == DORVEX_OK);
        Check(len == needed);
        Check(buffer == std::vector<uint8_t>(needed, 0x5A));
    }

    // Exactly the need, on the heap, so any write past it is caught.
    uint8_t *out = static_cast<uint8_t *>(malloc(needed > 0 ? needed : 1));
    uint32_t len = needed;
    Check(DorvexBase64Decode(src.data(), srcLength, out, &len) == DORVEX_OK);
    Check(len <= needed);
    free(out);
    return 0;
}
