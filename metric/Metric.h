#pragma once

#include <string>

namespace tavrik {

// A named, described number that a component reports on demand.
//
// Ownership: embedded in the component that it measures, which fills in the texts, adds it to the
// MetricRegistry in its constructor and removes it first thing in its destructor. The texts are
// constant while it is registered.
class Metric {
  public:
    virtual ~Metric() = default;

    // The present value. Called on the thread that walks the registry, with the registry's lock
    // held; takes no lock of its component's unless the class says so.
    virtual double collect() = 0;

    std::string category;     // kind of component
    std::string instance;     // the component's own name
    std::string name;         // within the category
    std::string description;  // a sentence for people
};

}  // namespace tavrik
