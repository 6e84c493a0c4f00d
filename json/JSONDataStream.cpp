// The stream forms, in a file of their own: a program that does not use them is linked without
// iostreams.
#include <istream>
#include <limits>
#include <ostream>

#include "json/JSONData.h"
#include "json/src/Parser.h"
#include "json/src/Writer.h"

namespace tavrik {

namespace {

// Reads a stream up to its end or a zero byte, where a text would end as well. Sets the stream's
// eofbit, and never looks again at an end that it has seen: that would set failbit.
class StreamSource {
  public:
    explicit StreamSource(std::istream& stream) : in(stream), ended(!stream.good()) {}

    int peek() {
        if (undone) return taken;
        if (ended) return 0;
        const std::istream::int_type next = in.peek();
        ended = next == std::istream::traits_type::eof();
        return ended ? 0 : next;
    }
    void advance() { taken = in.get(); }
    void takePlain(std::string& out) {
        for (int next = peek(); next != 0 && next != '"' && next != '\\'; next = peek()) {
            out += static_cast<char>(next);
            advance();
        }
    }
    // For those who then take nothing more. A stream that cannot go back loses that character.
    void back() {
        undone = true;
        const std::ios::iostate before = in.rdstate();
        in.unget();
        if (in.bad()) in.clear(before);
    }

  private:
    std::istream& in;
    bool ended;
    std::istream::int_type taken = 0;
    bool undone = false;
};

}  // namespace

bool JSONData::setFromStream(std::istream& in) {
    StreamSource source(in);
    return Parser<StreamSource>(source, "setFromStream()").parse(*this);
}

void JSONData::appendStream(std::ostream& out) const {
    struct Sink {
        std::ostream& stream;
        void put(char character) { stream.put(character); }
        void write(const char* data, size_t size) {
            stream.write(data, static_cast<std::streamsize>(size));
        }
    };
    constexpr std::streamsize kMost = std::numeric_limits<int>::max();
    Sink sink{out};
    Writer<Sink>(sink, false, static_cast<int>(std::min(out.precision(), kMost)), 0).write(*this);
}

}  // namespace tavrik
