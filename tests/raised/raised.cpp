// Traces a line and decrypts the stored password it is given; tests/raised/run runs it with more rights than its
// starter's. Writes what came of it: "secure" or "plain", then the clear password.

#include <Crypt.h>
#include <zel/Trace.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/auxv.h>

int main(int argc, char** argv)
{
    if (argc != 2) {
        return EXIT_FAILURE;
    }
    zel::Trace("Raised").log("a failure");
    std::string clear;
    Crypt::decrypt(argv[1], clear);
    std::printf("%s [%s]\n", getauxval(AT_SECURE) != 0 ? "secure" : "plain", clear.c_str());
    return EXIT_SUCCESS;
}
