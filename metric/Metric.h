#pragma once

#include <string>

namespace tavrik {

// A named, described number that a component reports on demand.
//
// Ownership: embedded in the component that it measures. The component sets the texts, adds the
// metric to the MetricRegistry in its constructor and removes it at the begin of its destructor.
// The texts are constant while it is registered.
class Metric {
  public:
    virtual ~Metric() = default;

    // Returns the present value. Called on the thread that walks the registry, with the registry's
    // lock held. Takes no lock of the component unless the class says so.
    virtual double collect() = 0;

    std::string category;     // kind of component
    std::string instance;     // the component's own name
    std::string name;         // within the category
    std::string description;  // a sentence for people
};

}  // namespace tavrik
