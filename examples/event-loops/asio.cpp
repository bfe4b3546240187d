// A host with a Boost.Asio loop: the loop watches a duplicate of the main queue's descriptor and drains the
// queue.

#include <iostream>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <unistd.h>

#include <ZembraCoreSDK/ZembraCoreSDK.h>

#include <ZembraPlatform/MainQueue.h>

#include "../SandboxHost.h"

namespace {

namespace asio = boost::asio;

/// Drains the main queue on the thread that runs `context`. Asio closes the descriptors that it is given, and
/// the queue keeps its own: so it gets a duplicate.
class QueuePump {
public:
    explicit QueuePump(asio::io_context& context)
        : descriptor_(context, ::dup(zembra::MainQueue::shared().fileDescriptor())) {
        watch();
    }

private:
    void watch() {
        descriptor_.async_wait(asio::posix::descriptor_base::wait_read,
                               [this](const boost::system::error_code& error) {
                                   if (error) return;
                                   watch();  // first: a callback that throws leaves the loop, not the watch
                                   zembra::MainQueue::shared().drain();
                               });
    }

    asio::posix::stream_descriptor descriptor_;
};

}  // namespace

int main() {
    const zembra::examples::SandboxHost sandbox;
    asio::io_context context;
    const QueuePump pump(context);

    int status = 1;
    zembra::ZMBApplication::configureApplication([&](bool success, const zembra::NSErrorPtr& error) {
        if (success)
            std::cout << "registered\n";
        else if (error)
            std::cerr << *error << '\n';
        status = success ? 0 : 1;
        context.stop();
    });

    context.run();
    return status;
}
