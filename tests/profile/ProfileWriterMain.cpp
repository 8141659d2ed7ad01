// Saves generation after generation of a profile list to the file named on the command line,
// forever, so a test can kill it at random moments and inspect what is left.
#include "core/profile/ProfilePersistence.h"

#include <string>

int main(int argc, char** argv) {
    if (argc != 2) {
        return 2;
    }
    veltra::ProfilePersistence persistence(argv[1]);
    // Each generation replaces the one before, the killed writer's last one included.
    if (persistence.load().problem) {
        return 3;
    }
    for (int generation = 1;; ++generation) {
        std::vector<veltra::ProjectProfile> profiles;
        for (int i = 0; i < 40; ++i) {
            auto profile = veltra::ProjectProfile::create("gen-" + std::to_string(generation),
                                                          "com.example.app");
            profile.customPostScript =
                std::string(static_cast<std::size_t>(200 + generation % 300), 'x');
            profiles.push_back(std::move(profile));
        }
        persistence.schedule(std::move(profiles));
        persistence.flush();
    }
}
