// Play a sound: Start() returns at once; the callback says when it is over.
#include <hmisvc/media.h>

#include <future>
#include <iostream>

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::cerr << "usage: play_sound FILE.wav" << std::endl;
        return 2;
    }
    // The player must outlive its playback: wait for the callback.
    MediaPlayer player;
    std::promise<void> done;
    player.SetDataSource(argv[1]);
    // Runs on the play thread, after every playback, failed ones included.
    player.SetOnCompletionCallback([&done](int, MediaPlayer *) { done.set_value(); });
    player.Start();
    done.get_future().wait();
    return 0;
}
