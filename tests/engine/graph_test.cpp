#include "engine_fixture.h"

#include "api/status.h"
#include "ladspa/port_names.h"

#include <cstring>
#include <fstream>
#include <gmock/gmock.h>

using namespace sonetrix::dev;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

class GraphTest : public EngineTest {};

TEST(PortNames, areShortUniqueAndSafeForScripts) {
    const std::pair<const char *, const char *> cases[] = {
        {"Delay (Seconds)", "delay_seconds"},
        {"delay-SECONDS", "delay_second_2"},
        {"Höhe  1", "h_he_1"},
        {"___", "port"},
        {"", "port_2"},
        {"Delay Seconds!", "delay_second_3"},
        {"abcdefghijklmnopq", "abcdefghijklmn"},
    };
    PortNames names(14);
    for (const auto &[given, expected] : cases)
        EXPECT_EQ(names.add(given), expected);
}

TEST_F(GraphTest, listsPluginsAndSkipsBrokenLibraries) {
    std::ofstream(directory / "broken.so") << "no library";
    std::filesystem::copy("/usr/lib/ladspa/amp.so", directory / "other_amp.so");
    const std::string path = directory.string() + ":/nowhere:/usr/lib/ladspa";
    setenv("LADSPA_PATH", path.c_str(), 1);
    start();
    const Names identifiers = names(sonetrix_engine_GetModulesList(handle));
    unsetenv("LADSPA_PATH");
    EXPECT_THAT(identifiers, AllOf(Contains("amp_mono").Times(1), Contains("amp.amp_mono"), Contains("delay_5s")));
    EXPECT_THAT(identifiers, Not(Contains("system")));
    ASSERT_EQ(add("a", "amp_mono"), 0);
    sonetrix_module_t record{};
    record.name[0] = 'a';
    char *library = nullptr;
    ListKeyValue *configuration = nullptr;
    ASSERT_EQ(sonetrix_engine_ModuleGetStartParameter(handle, &record, &library, &configuration), 0);
    EXPECT_EQ(library, directory / "other_amp.so");
    std::free(library);
    delete configuration;
}

TEST_F(GraphTest, modulesHavePortsParametersAndConfiguration) {
    start();
    ListKeyValue configuration;
    configuration.add("delay_seconds", 0.25F);
    ASSERT_EQ(add("echo", "delay_5s", &configuration), 0);
    EXPECT_THAT(modules(), ElementsAre("system", "echo"));
    EXPECT_THAT(names(sonetrix_engine_GetAllPortNames(handle)),
        ElementsAre("system:capture_1", "system:capture_2", "system:playback_1", "system:playback_2", "echo:output",
            "echo:input"));
    const auto parameters = get("echo.");
    ASSERT_EQ(parameters->size(), 2U);
    EXPECT_TRUE(identical(*parameters->find("echo.delay_seconds"), valueRecord(0.25F)));
    EXPECT_TRUE(identical(*parameters->find("echo.dry_wet_balance"), valueRecord(0.5F)));

    struct Seen {
        sonetrix_engine_t *engine;
        int plugins = 0;
    } seen{handle};
    ASSERT_EQ(link("system:capture_2", "echo:input"), 0);
    sonetrix_engine_ForEachModuleSafe(
        handle,
        [](const sonetrix_module_t *module, void *user) {
            auto *state = static_cast<Seen *>(user);
            EXPECT_EQ(sonetrix_engine_DriverIsLoaded(module->reference), 0);
            char *library = nullptr;
            ListKeyValue *list = nullptr;
            if (module->type == 0) {
                EXPECT_EQ(module->sourceCount, 2U);
                EXPECT_EQ(module->sinkCount, 2U);
                EXPECT_EQ(module->sinks[0]->link, nullptr);
                EXPECT_NE(sonetrix_engine_ModuleGetStartParameter(state->engine, module, &library, &list), 0);
                return 0;
            }
            ++state->plugins;
            EXPECT_STREQ(module->sources[0]->name, "echo:output");
            EXPECT_STREQ(module->sinks[0]->link, "system:capture_2");
            EXPECT_EQ(sonetrix_engine_ModuleGetStartParameter(state->engine, module, &library, &list), 0);
            EXPECT_TRUE(std::strstr(library, "/cmt.so"));
            EXPECT_TRUE(list->size() == 1 && identical(*list->find("delay_seconds"), valueRecord(0.25F)));
            std::free(library);
            delete list;
            return sonetrix_engine_ModuleDelete(state->engine, module->name); // the record stays whole
        },
        &seen);
    EXPECT_EQ(seen.plugins, 1);
    EXPECT_THAT(modules(), ElementsAre("system"));
    EXPECT_TRUE(get("echo.")->empty());
}

TEST_F(GraphTest, refusedModulesLeaveNothingBehind) {
    start();
    ListKeyValue unknown;
    unknown.add("no_such", 1.0F);
    ListKeyValue tooBig;
    tooBig.add("delay_seconds", 5.5F);
    ListKeyValue wrongType;
    wrongType.add("delay_seconds", "1");
    const struct {
        const char *name;
        const char *identifier;
        const ListKeyValue *configuration;
        int32_t status;
    } cases[] = {
        {"m", "no_such_plugin", nullptr, statusNotFound},
        {"m", "delay_5s", &unknown, statusNotFound},
        {"m", "delay_5s", &tooBig, statusRange},
        {"m", "delay_5s", &wrongType, statusRange},
        {"system", "delay_5s", nullptr, statusExists},
        {"engine", "delay_5s", nullptr, statusInvalid},
        {"", "delay_5s", nullptr, statusInvalid},
        {"a.b", "delay_5s", nullptr, statusInvalid},
        {"a:b", "delay_5s", nullptr, statusInvalid},
        {"a_name_that_is_forty_characters_long_____", "delay_5s", nullptr, statusInvalid},
        {nullptr, "delay_5s", nullptr, statusInvalid},
    };
    for (const auto &refused : cases)
        EXPECT_EQ(add(refused.name, refused.identifier, refused.configuration), refused.status) << refused.name;
    EXPECT_THAT(modules(), ElementsAre("system"));
    EXPECT_TRUE(get("m.")->empty());

    ASSERT_EQ(add("a_name_that_is_39_characters_long______", "delay_5s"), 0);
    EXPECT_EQ(add("a_name_that_is_39_characters_long______", "amp_mono"), statusExists);
    EXPECT_EQ(sonetrix_engine_ModuleDelete(handle, "system"), statusInvalid);
    EXPECT_EQ(sonetrix_engine_ModuleDelete(handle, "m"), statusNotFound);
    EXPECT_EQ(sonetrix_engine_ModuleDelete(handle, "a_name_that_is_39_characters_long______"), 0);
    EXPECT_EQ(add("m", "amp_mono"), 0);
}

TEST_F(GraphTest, linksGoFromOneSourceToManySinks) {
    start();
    ASSERT_EQ(add("a", "amp_stereo"), 0);
    ASSERT_EQ(add("b", "amp_mono"), 0);
    EXPECT_EQ(link("a:output_left", "b:input"), 0);
    EXPECT_EQ(link("a:output_left", "system:playback_1"), 0);
    EXPECT_EQ(link("b:output", "system:playback_2"), 0);

    EXPECT_EQ(link("a:output_right", "b:input"), statusBusy);
    EXPECT_EQ(link("a:output_left", "b:input"), 0); // as it is
    EXPECT_EQ(link("a:input_left", "b:output"), statusInvalid);
    EXPECT_EQ(link("a:output_left", "b:output"), statusInvalid);
    EXPECT_EQ(link("a:no_such", "b:input"), statusNotFound);
    EXPECT_EQ(link("a:output_left", "c:input"), statusNotFound);
    EXPECT_EQ(link("no:port", nullptr), statusNotFound);
    EXPECT_EQ(link("b:input", "a:output_left"), statusInvalid);

    EXPECT_THAT(links("a:output_left"), ElementsAre("b:input", "system:playback_1"));
    EXPECT_THAT(links("b:input"), ElementsAre("a:output_left"));
    EXPECT_THAT(links("a:output_right"), IsEmpty());

    EXPECT_EQ(link("b:input", ""), 0);
    EXPECT_THAT(links("a:output_left"), ElementsAre("system:playback_1"));
    EXPECT_EQ(link("a:output_right", "b:input"), 0);
    EXPECT_EQ(link("a:output_right", nullptr), 0);
    EXPECT_THAT(links("b:input"), IsEmpty());
    EXPECT_EQ(link("a:output_right", ""), 0);

    EXPECT_EQ(link("b:output", "b:input"), 0);
    EXPECT_EQ(sonetrix_engine_ModuleDelete(handle, "b"), 0);
    EXPECT_THAT(links("system:playback_2"), IsEmpty());
    EXPECT_THAT(links("a:output_left"), ElementsAre("system:playback_1"));
}

} // namespace
