// A header that the embedding program calls like one of the library.
#pragma once

struct OwnLogger {
    static constexpr int kMark = 7;
};
