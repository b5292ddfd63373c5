#include "tests/unit/mom/store_harness.h"

#include "platform/base/log.h"
#include "platform/base/virtual_loop.h"
#include "platform/mom/keys.h"
#include "platform/mom/store_local.h"

#include <algorithm>
#include <cstring>

namespace vvl::mom
{
namespace
{

class LocalEnvironment final : public Environment
{
  public:
    Store &store() override { return *store_; }
    Loop &loop() override { return loop_; }
    void run_until_idle() override { loop_.run_pending(); }

  private:
    VirtualLoop loop_;
    std::unique_ptr<Store> store_ = make_local_store();
};

std::unique_ptr<Environment> make_local()
{
    return std::make_unique<LocalEnvironment>();
}

std::string describe_message(const ProtobufCMessage &message, const std::string &fields)
{
    const ProtobufCMessageDescriptor &descriptor = *message.descriptor;
    const ObjectType *type = find_type(descriptor.name);
    std::string key;
    // Whoever is called back must never see a descriptor of the writer's.
    if (type == nullptr || type->descriptor != &descriptor || !encode_key(*type, message, key)) {
        return "object without type or key";
    }
    std::string text = descriptor.name + std::strlen(descriptor.package_name) + 1;
    text += (key.empty() ? "" : " " + key) + fields;
    for (unsigned i = 0; i < descriptor.n_fields; i++) {
        const ProtobufCFieldDescriptor &field = descriptor.fields[i];
        const bool is_number = field.type == PROTOBUF_C_TYPE_UINT32;
        if (const uint32_t value = is_number ? get_member<uint32_t>(message, field) : 0; value != 0) {
            text += std::string(" ") + field.name + "=" + std::to_string(value);
        }
    }
    return text;
}

std::string describe(const tq_mom_record_t &record, bool is_field)
{
    static const char *const phases[] = {"", "over", "open", "done"};
    static const std::map<int32_t, std::string> operations = {{TQ_MOM_SET, "set"},
                                                              {TQ_MOM_DEL, "del"},
                                                              {TQ_MOM_HSET, "hset"},
                                                              {TQ_MOM_PUBLISH, "publish"},
                                                              {TQ_MOM_WITHDRAWN, "withdrawn"},
                                                              {TQ_MOM_ESTABLISHED, "established"}};
    if (record.error != 0) {
        return "error " + std::to_string(record.error) + " " + phases[record.phase];
    }
    if (record.phase != TQ_MOM_RECORD) {
        return phases[record.phase] + std::string(record.object != nullptr ? " with an object" : "");
    }
    const std::string &operation = operations.at(record.operate);
    if (record.object == nullptr) {
        return operation;
    }
    if (record.operate != TQ_MOM_HSET && !is_field) {
        return operation + " " + describe_message(*static_cast<ProtobufCMessage *>(record.object), "");
    }
    const auto &hash = *static_cast<tq_mom_hash_t *>(record.object);
    std::string fields;
    for (uint32_t i = 0; i < hash.count; i++) {
        fields += " " + std::to_string(hash.fields[i]);
    }
    return operation + " " + describe_message(*hash.message, " fields" + fields + ";");
}

} // namespace

const std::vector<StoreUnderTest> &stores_under_test()
{
    static const std::vector<StoreUnderTest> rows = {{"local", make_local}};
    return rows;
}

std::string row_name(const testing::TestParamInfo<StoreUnderTest> &info)
{
    return info.param.name;
}

int Recorder::callback(void *, tq_mom_record_t *record, void *user)
{
    auto &recorder = *static_cast<Recorder *>(user);
    const std::string line = describe(*record, recorder.reads_fields);
    recorder.lines_.push_back(line);
    const int result = recorder.result;
    if (recorder.on_line) {
        recorder.on_line(line);
    }
    return result;
}

Client::Client(Environment &environment, const char *name)
{
    EXPECT_EQ(attach(ctx(), environment.store(), environment.loop(), name), 0);
    for (const uint32_t db : {0u, 4u, 6u, 8u}) {
        EXPECT_EQ(tq_mom_client_connect_sync(ctx(), db), 0);
    }
}

void Client::set(uint32_t db, const ProtobufCMessage *object)
{
    EXPECT_EQ(tq_mom_set(ctx(), db, object, nullptr, nullptr), 0);
}

void Client::del(uint32_t db, const ProtobufCMessage *object)
{
    EXPECT_EQ(tq_mom_del(ctx(), db, object, nullptr, nullptr), 0);
}

void Client::subscribe(uint32_t db, const ProtobufCMessage *tmpl, Recorder &to, uint32_t flags)
{
    EXPECT_EQ(tq_mom_subscribe(ctx(), db, tmpl, flags, Recorder::callback, &to), 0);
}

void Client::unsubscribe(uint32_t db, const ProtobufCMessage *tmpl, Recorder &to, uint32_t flags)
{
    EXPECT_EQ(tq_mom_unsubscribe(ctx(), db, tmpl, flags, Recorder::callback, &to), 0);
}

void Client::scan(uint32_t db, const ProtobufCMessage *tmpl, Recorder &to, uint32_t flags)
{
    EXPECT_EQ(tq_mom_scan(ctx(), db, tmpl, flags, Recorder::callback, &to), 0);
}

Lines Client::scan_now(uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags)
{
    Recorder found;
    EXPECT_EQ(tq_mom_scan_sync(ctx(), db, tmpl, flags, Recorder::callback, &found), 0);
    return found.take();
}

void apply(Client &client, uint32_t db, const ProtobufCMessage *object, char operation, uint64_t owner)
{
    void *ctx = client.ctx();
    auto perform = [&] {
        switch (operation) {
        case 's':
            return tq_mom_set(ctx, db, object, nullptr, nullptr);
        case 'd':
            return tq_mom_del(ctx, db, object, nullptr, nullptr);
        case 'c':
            return tq_mom_clear_expire(ctx, db, object, nullptr, nullptr);
        case '+':
            return tq_mom_setow(ctx, db, object, nullptr, nullptr, owner);
        case '-':
            return tq_mom_del_ow(ctx, db, object, nullptr, nullptr, owner);
        case '[':
            return owner == 0 ? tq_mom_dsbegin_sync(ctx, db, object, 0, 1000)
                              : tq_mom_dsbegin_ow(ctx, db, object, 0, 1000, nullptr, nullptr, owner);
        default:
            return owner == 0 ? tq_mom_dsend(ctx, db, object, 0, nullptr, nullptr)
                              : tq_mom_dsend_ow(ctx, db, object, 0, nullptr, nullptr, owner);
        }
    };
    EXPECT_EQ(perform(), 0) << operation << owner;
}

LogCapture::LogCapture()
{
    set_log_sink([this](LogLevel, const std::string &text) { lines_.push_back(text); });
}

LogCapture::~LogCapture()
{
    set_log_sink({});
}

size_t LogCapture::count(const std::string &part) const
{
    return static_cast<size_t>(std::count_if(
        lines_.begin(), lines_.end(), [&](const std::string &line) { return line.find(part) != std::string::npos; }));
}

} // namespace vvl::mom
