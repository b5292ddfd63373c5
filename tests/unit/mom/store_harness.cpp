#include "tests/unit/mom/store_harness.h"

#include "platform/mom/keys.h"
#include "platform/mom/local/store_local.h"
#ifdef VVLAN_REDIS
#    include "platform/mom/redis/store_redis.h"
#    include "tests/support/redis_server.h"
#endif

#include <cstring>

namespace vvl::mom
{
namespace
{

#ifdef VVLAN_REDIS
std::unique_ptr<Store> make_fresh_redis_store()
{
    static unsigned count = 0;
    std::string why;
    auto store = make_redis_store({test::shared_redis_server().address(), std::to_string(++count) + ":", {}}, why);
    EXPECT_NE(store, nullptr) << why;
    return store;
}
#endif

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
    static const std::vector<StoreUnderTest> rows = {
        {"local", make_local_store},
#ifdef VVLAN_REDIS
        {"redis", make_fresh_redis_store},
#endif
    };
    return rows;
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

void apply(Client &client, const ProtobufCMessage *object, char operation, uint64_t owner)
{
    constexpr uint32_t db = life_db;
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

} // namespace vvl::mom
