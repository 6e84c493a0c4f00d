#include "json/JSONData.h"

#include <jansson.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

#include "bench/Bench.h"

namespace {

using State = benchmark::State;
using tavrik::JSONData;

// --- Texts ----------------------------------------------------------------------------------

std::string smallText() {
    std::string text = R"({"name":"adsppm","enabled":true,"period":100,"listeners":[)";
    for (int i = 0; i < 6; ++i) {
        const std::string number = std::to_string(i);
        text += i ? "," : "";
        text += R"({"id":-)" + number + R"(,"title":"performance event )" + number +
                R"(","scale":0.00)" + number + R"(1,"on":false,"note":null})";
    }
    return text + R"(],"path":"/dev/diag","text":"two\nlines"})";
}

std::string largeText() {
    const std::string part = smallText();
    std::string text = "[" + part;
    while (text.size() < 1000000)
        text += "," + part;
    return text + "]";
}

std::string numbersText() {
    std::string text = "[0";
    for (int i = 1; i < 100000; ++i)
        text +=
            "," + std::to_string(i * 37 % 100003) + (i % 2 ? "" : ".25" + std::to_string(i % 97));
    return text + "]";
}

// --- Parse, write, copy ---------------------------------------------------------------------

void parse(State& state, const std::string& text) {
    for (auto _ : state) {
        JSONData node;
        if (!node.setFromJsonStlString(text)) state.SkipWithError("not parsed");
    }
}

void parseNlohmann(State& state, const std::string& text) {
    for (auto _ : state)
        benchmark::DoNotOptimize(nlohmann::ordered_json::parse(text));
}

void parseRapid(State& state, const std::string& text) {
    for (auto _ : state) {
        rapidjson::Document document;
        document.Parse(text.c_str());
        benchmark::DoNotOptimize(document.IsObject());
    }
}

void write(State& state, const std::string& text) {
    JSONData node;
    node.setFromJsonStlString(text);
    for (auto _ : state) {
        std::string out;
        node.toJsonString(out, false, 4);
        benchmark::DoNotOptimize(out.data());
    }
}

void writeRapid(State& state, const std::string& text) {
    rapidjson::Document document;
    document.Parse(text.c_str());
    for (auto _ : state) {
        rapidjson::StringBuffer out;
        rapidjson::Writer<rapidjson::StringBuffer> writer(out);
        writer.SetMaxDecimalPlaces(4);
        document.Accept(writer);
        benchmark::DoNotOptimize(out.GetString());
    }
}

void copy(State& state, const std::string& text) {
    JSONData node;
    node.setFromJsonStlString(text);
    for (auto _ : state) {
        JSONData fresh;
        fresh.copy(node);
        benchmark::DoNotOptimize(fresh.length());
    }
}

void copyRapid(State& state, const std::string& text) {
    rapidjson::Document document;
    document.Parse(text.c_str());
    for (auto _ : state) {
        rapidjson::Document fresh;
        fresh.CopyFrom(document, fresh.GetAllocator());
        benchmark::DoNotOptimize(fresh.IsObject());
    }
}

// --- Members --------------------------------------------------------------------------------

std::vector<std::string> keys(int64_t count) {
    std::vector<std::string> all;
    for (int64_t i = 0; i < count; ++i)
        all.push_back("member " + std::to_string(i));
    return all;
}

void build(JSONData& object, const std::vector<std::string>& all) {
    for (const std::string& key : all) {
        JSONData* const value = new JSONData;
        object.setByKey(key, value);
        value->release();
    }
}

void lookUp(State& state, int count) {
    const std::vector<std::string> all = keys(count);
    JSONData object;
    build(object, all);
    for (auto _ : state) {
        for (const std::string& key : all)
            benchmark::DoNotOptimize(object.getByKey(key));
    }
}

void lookUpNlohmann(State& state, int count) {
    const std::vector<std::string> all = keys(count);
    nlohmann::ordered_json object;
    for (const std::string& key : all)
        object[key] = nullptr;
    for (auto _ : state) {
        for (const std::string& key : all)
            benchmark::DoNotOptimize(object.find(key));
    }
}

void lookUpJansson(State& state, int count) {
    const std::vector<std::string> all = keys(count);
    json_t* const object = json_object();
    for (const std::string& key : all)
        json_object_set_new(object, key.c_str(), json_null());
    for (auto _ : state) {
        for (const std::string& key : all)
            benchmark::DoNotOptimize(json_object_get(object, key.c_str()));
    }
    json_decref(object);
}

void buildAndLookUp(State& state) {
    const std::vector<std::string> all = keys(state.range(0));
    for (auto _ : state) {
        JSONData object;
        build(object, all);
        for (const std::string& key : all)
            benchmark::DoNotOptimize(object.getByKey(key));
    }
}

const bool registered = [] {
    const std::pair<const char*, std::string> texts[] = {
        {"600 B", smallText()}, {"1 MB", largeText()}, {"100k numbers", numbersText()}};
    using Code = void (*)(State&, const std::string&);
    const auto add = [](const std::string& name, Code code, const std::string& text) {
        bench::add(name, [=](State& state) { code(state, text); });
    };
    for (const auto& [size, text] : texts) {
        const std::string name(size);
        add("JSON parse, " + name + "/tavrik", parse, text);
        add("JSON parse, " + name + "/nlohmann", parseNlohmann, text);
        add("JSON parse, " + name + "/rapidjson", parseRapid, text);
        add("JSON write, " + name + "/tavrik", write, text);
        add("JSON write, " + name + "/rapidjson", writeRapid, text);
        add("JSON copy, " + name + "/tavrik", copy, text);
        add("JSON copy, " + name + "/rapidjson", copyRapid, text);
    }
    for (const int count : {10, 1000}) {
        const std::string piece = "JSON look-up among " + std::to_string(count);
        bench::add(piece + "/tavrik", [=](State& state) { lookUp(state, count); });
        bench::add(piece + "/nlohmann", [=](State& state) { lookUpNlohmann(state, count); });
        bench::add(piece + "/jansson", [=](State& state) { lookUpJansson(state, count); });
    }
    bench::addGrowth("build an object and look each member up", buildAndLookUp);
    return true;
}();

}  // namespace
