// qp-cupsd-setup: writes the private scheduler configuration of the test
// fixture into /etc/cups and the tool links into /usr/bin, so that a plain
// "/usr/sbin/cupsd" (as the library starts it) runs sandboxed.  For the demo;
// refuses to run outside qp-sandbox.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "cupsd_fixture.hpp"

int main() {
    const char *sandbox = getenv("QP_SANDBOX");
    if (!sandbox || strcmp(sandbox, "1") != 0) {
        fprintf(stderr, "qp-cupsd-setup: writes /etc/cups; run it inside qp-sandbox\n");
        return 2;
    }
    qpcups::Cupsd::install();
    printf("private cupsd configuration in /etc/cups (socket %s only)\n", qpcups::kSocket);
    return 0;
}
