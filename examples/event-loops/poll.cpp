// A host with a loop of its own over poll(): it watches the main queue's descriptor beside its own.

#include <iostream>

#include <poll.h>
#include <unistd.h>

#include <ZembraCoreSDK/ZembraCoreSDK.h>

#include <ZembraPlatform/MainQueue.h>

#include "../SandboxHost.h"

int main() {
    const zembra::examples::SandboxHost sandbox;
    bool isDone = false;
    int status = 1;
    zembra::ZMBApplication::configureApplication([&](bool success, const zembra::NSErrorPtr& error) {
        if (success)
            std::cout << "registered\n";
        else if (error)
            std::cerr << *error << '\n';
        status = success ? 0 : 1;
        isDone = true;
    });

    zembra::MainQueue& queue = zembra::MainQueue::shared();
    while (!isDone) {
        pollfd watched[] = {{queue.fileDescriptor(), POLLIN, 0} /* and the host's own descriptors */};
        if (poll(watched, 1, 30'000) <= 0) return 1;
        if (watched[0].revents != 0) queue.drain();
    }
    return status;
}
