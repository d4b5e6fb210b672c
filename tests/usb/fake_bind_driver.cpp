// A stand-in for the appliance's USB/IP tool /usr/bin/bind_driver: appends
// its arguments to /tmp/bind_driver.log (one run per line, arguments
// separated by '|') and exits with the number in /tmp/bind_driver.status
// (0 when that file is missing).
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char **argv) {
    if (FILE *log = fopen("/tmp/bind_driver.log", "a")) {
        for (int i = 1; i < argc; ++i) fprintf(log, "%s%s", i > 1 ? "|" : "", argv[i]);
        fputc('\n', log);
        fclose(log);
    }
    int status = 0;
    if (FILE *f = fopen("/tmp/bind_driver.status", "r")) {
        if (fscanf(f, "%d", &status) != 1) status = 0;
        fclose(f);
    }
    return status;
}
