// The stream forms, apart from the rest for the reason that JSONDataStream.cpp gives.
#include <istream>

#include "json/JSOM.h"

namespace tavrik {

JSOM& JSOM::fromStream(std::istream& in) {
    if (in.fail()) return *this;
    if (!needNode("fromStream()") || !held->setFromStream(in)) return errorHandle();
    return *this;
}

void JSOM::toStream(std::ostream& out) const {
    if (hasNode()) held->appendStream(out);
}

}  // namespace tavrik
