#include "core/daemon.h"

int main() {
    return daemon_run();
}
