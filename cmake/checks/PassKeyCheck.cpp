// Configure-time check of a release's production key: exits 0 when the helper would load the
// base64 text given as the only argument as a pass-signing key, else says why and exits 1.
#include <iostream>

#include "access/Base64.h"
#include "access/VerificationKey.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cout << "usage: PassKeyCheck BASE64";
        return 2;
    }
    const auto point = velmora::Base64::decode(argv[1]);
    if (!point) {
        std::cout << "it is not standard base64";
        return 1;
    }
    if (!velmora::HelperPass::VerificationKey::fromX963(*point)) {
        std::cout << "its " << point->size()
                  << " bytes are not an uncompressed point on the P-256 curve";
        return 1;
    }
    return 0;
}
