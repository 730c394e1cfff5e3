// A server object of a generated class: what it is given, it gives back.
#pragma once

#include <ipprmi.h>
#include <reflect.h>

#include <string>
#include <vector>

#include "gate.h"

class Gate final : public works::GateSkeleton {
public:
    static constexpr unsigned int kSerial = 4711;

    explicit Gate(std::string const& name)
        : GateSkeleton(TipprmiOID(name, NSID_UNIT), nullptr, name) {}

    unsigned int getSerial() override { return kSerial; }
    std::string describe(bool detailed) override { return detailed ? "a gate of steel" : "a gate"; }
    std::string getTitle() override { return title_; }
    TipprmiOutcome<void, parts::named::BadName> setTitle(std::string_view title) override {
        if (title.empty())
            return parts::named::BadName{"none"};
        title_ = title;
        return {};
    }
    parts::named::MeasuredResult measured() override {
        return {title_, static_cast<unsigned int>(title_.size())};
    }

    works::Speeds getSpeeds() override { return speeds_; }
    void setSpeeds(works::Speeds const& speeds) override { speeds_ = speeds; }
    works::Light getLight() override { return light_; }
    void setLight(works::Light light) override { light_ = light; }
    works::GateClient getNext() override { return self(); }

    works::Numbers numbers(works::Numbers const& given) override { return given; }
    works::Tree tree(works::Tree const& given) override { return given; }
    works::Value value(works::Value const& given) override { return given; }
    works::OnOff onOff(works::OnOff const& given) override { return given; }
    works::Bytes bytes(TipprmiByteView given) override { return {given.begin(), given.end()}; }
    std::vector<bool> flags(std::vector<bool> const& given) override { return given; }
    TipprmiAny anything(TipprmiAny const& given) override { return given; }
    std::wstring wide(std::wstring const& given) override { return given; }
    works::Neighbour neighbour() override { return {self(), getOID()}; }
    TipprmiOutcome<works::gate::MoveResult, works::Jammed, works::Closed> move(
        int delete_, int position) override {
        if (delete_ < 0)
            return works::Closed{};
        if (delete_ > 10)
            return works::Jammed{works::Light::red, {"stone", {{"pebble"}}, works::Light::green}};
        return works::gate::MoveResult{position + delete_, "moved"};
    }
    int connect_(int class_) override { return class_ + 1; }
    void hurry(unsigned int by) override { hurried_ += by; }
    unsigned int hurried() override { return hurried_; }

private:
    works::GateClient self() const { return getClient()->as<works::GateClient>(); }

    std::string title_ = "main";
    works::Speeds speeds_ = {1.5, -2.25};
    works::Light light_ = works::Light::green;
    unsigned int hurried_ = 0;
};
