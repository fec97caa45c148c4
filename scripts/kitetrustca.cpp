// kitetrustca <certificate.der>: adds a certificate authority to the Root store of the Wine prefix
// it runs in. WinINet checks every server certificate; trusting the test authority lets it accept
// the loopback servers of the tests and the main job without any check being turned off.
#include <windows.h>
#include <wincrypt.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: kitetrustca <certificate.der>\n");
        return 2;
    }
    std::ifstream in(argv[1], std::ios::binary);
    const std::vector<BYTE> der((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
    if (der.empty() || !::CertAddEncodedCertificateToSystemStoreA("Root", der.data(),
                                                                  static_cast<DWORD>(der.size()))) {
        std::fprintf(stderr, "kitetrustca: cannot add %s (error %lu)\n", argv[1], ::GetLastError());
        return 1;
    }
    return 0;
}
