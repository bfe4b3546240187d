// A host with GLib's main loop: the loop watches the main queue's descriptor and drains the queue.

#include <iostream>

#include <glib-unix.h>

#include <ZembraCoreSDK/ZembraCoreSDK.h>

#include <ZembraPlatform/MainQueue.h>

#include "../SandboxHost.h"

int main() {
    const zembra::examples::SandboxHost sandbox;
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    const auto drain = [](gint, GIOCondition, gpointer) -> gboolean {
        zembra::MainQueue::shared().drain();
        return G_SOURCE_CONTINUE;
    };
    g_unix_fd_add(zembra::MainQueue::shared().fileDescriptor(), G_IO_IN, drain, nullptr);

    int status = 1;
    zembra::ZMBApplication::configureApplication([&](bool success, const zembra::NSErrorPtr& error) {
        if (success)
            std::cout << "registered\n";
        else if (error)
            std::cerr << *error << '\n';
        status = success ? 0 : 1;
        g_main_loop_quit(loop);
    });

    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    return status;
}
