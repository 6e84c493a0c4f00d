#pragma once

namespace tavrik {

// Names that components agree on.
struct TavrikConstants {
    static constexpr const char* TRIGGER_RUN_LEVEL = "_RunLevel";
    static constexpr const char* TRIGGER_CHANNEL_LIST = "_ChannelList";
};

}  // namespace tavrik
