// Builds against an installed libhmisvc: one intent, encoded and decoded.
#include <cstdio>

#include <hmisvc/broadcast.h>
#include <hmisvc/config.h>

int main() {
    Intent intent("hmisvc.install.check");
    intent.putExtra("level", 7);
    Intent copy;
    copy.fromString(intent.toString());
    std::printf("%s level=%d bytes=%zu\n", copy.getAction().c_str(),
                copy.getIntExtra("level", -1), intent.toString().size());
    return copy.getIntExtra("level", -1) == 7 ? 0 : 1;
}
