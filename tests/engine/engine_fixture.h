#pragma once

#include "api/engine_handle.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <sndfile.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

/// An engine for a test, used as scripts use it: through the C interface.
class EngineTest : public testing::Test {
public:
    using Options = sonetrix::dev::Engine::Options;
    using ListValue = sonetrix::dev::ListValue;
    using ListKeyValue = sonetrix::dev::ListKeyValue;
    using Names = std::vector<std::string>;

    EngineTest() : directory(std::filesystem::temp_directory_path() / ("sonetrix-test-" + std::to_string(getpid()))) {
        std::filesystem::create_directories(directory);
    }
    ~EngineTest() override {
        engine.reset();
        std::filesystem::remove_all(directory);
    }

    void start(const Options &options = {}) {
        std::string error;
        engine = sonetrix::dev::Engine::create(options, ListKeyValue(), error);
        ASSERT_TRUE(engine) << error;
        ASSERT_TRUE(engine->start(error)) << error;
        handle = sonetrix_engineGet();
        ASSERT_EQ(handle, sonetrix::dev::handleOf(engine.get()));
    }

    int32_t add(const char *name, const char *identifier, const ListKeyValue *configuration = nullptr) const {
        return sonetrix_engine_ModuleNew(handle, name, identifier, configuration);
    }
    int32_t link(const char *source, const char *sink) const { return sonetrix_engine_LinkPort(handle, source, sink); }

    template <class T> bool set(const char *key, const T &value) {
        ListKeyValue entry;
        entry.add(key, value);
        ListKeyValue written;
        sonetrix_engine_SetParamsFull(handle, &entry, &written);
        return written.size() == 1 && sonetrix::dev::identical(written[0].value, entry[0].value);
    }
    std::unique_ptr<ListKeyValue> get(const char *key) const {
        ListValue keys;
        keys.add(key);
        return std::unique_ptr<ListKeyValue>(sonetrix_engine_GetParams(handle, &keys));
    }

    static Names names(ListValue *list) {
        const std::unique_ptr<ListValue> owned(list);
        Names strings;
        if (owned)
            for (const auto &value : *owned)
                strings.emplace_back(value.as.string);
        return strings;
    }
    Names links(const char *port) const { return names(sonetrix_engine_GetLinkPort(handle, port)); }
    Names modules() const {
        Names found;
        sonetrix_engine_ForEachModuleSafe(
            handle,
            [](const sonetrix_module_t *module, void *user) {
                static_cast<Names *>(user)->emplace_back(module->name);
                return 0;
            },
            &found);
        return found;
    }

    /// Whether the condition comes true within a generous time.
    template <class Condition> static bool eventually(Condition condition) {
        for (int i = 0; i < 5000; ++i) {
            if (condition())
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return false;
    }

    static std::vector<float> channel(const std::filesystem::path &file, int wanted) {
        SF_INFO info{};
        SNDFILE *sound = sf_open(file.c_str(), SFM_READ, &info);
        if (sound == nullptr)
            return {};
        std::vector<float> all(static_cast<size_t>(info.frames * info.channels));
        sf_readf_float(sound, all.data(), info.frames);
        sf_close(sound);
        std::vector<float> samples;
        for (size_t i = static_cast<size_t>(wanted); i < all.size(); i += static_cast<size_t>(info.channels))
            samples.push_back(all[i]);
        return samples;
    }

    std::filesystem::path directory;
    std::unique_ptr<sonetrix::dev::Engine> engine;
    sonetrix_engine_t *handle = nullptr;
};
