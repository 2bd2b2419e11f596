// register_names PREFIX COUNT: registers COUNT endpoint names nobody
// publishes (PREFIX0, PREFIX1, ...) with the broadcast service, as any
// process could, and prints "accepted A refused R failed F", then when the
// answer to the 257th came and when the last came (seconds from the first).
#include <hmisvc/context.h>
#include <hmisvc/proxies.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

int main(int argc, char **argv)
{
    if (argc != 3)
        return 2;
    auto hub = std::dynamic_pointer_cast<BroadcastManager>(Context::getSystemService(Context::BROADCAST_SERVICE));
    int accepted = 0, refused = 0, failed = 0;
    const auto start = std::chrono::steady_clock::now();
    auto seconds = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(); };
    double first257 = -1;
    for (int i = 0, n = std::atoi(argv[2]); i < n; ++i) {
        int answer = hub->RegisterBroadcastService(argv[1] + std::to_string(i));
        (answer == 0 ? accepted : answer == -1 ? refused : failed) += 1;
        if (i == 256)
            first257 = seconds();
    }
    std::printf("accepted %d refused %d failed %d; 257th at %.3f s, last at %.3f s\n", accepted, refused, failed,
                first257, seconds());
    return 0;
}
