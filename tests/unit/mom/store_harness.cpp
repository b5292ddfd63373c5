#include "tests/unit/mom/store_harness.h"

#include "platform/mom/keys.h"
#include "platform/mom/local/store_local.h"
#ifdef VVLAN_REDIS
#    include "platform/mom/redis/store_redis.h"
#    include "tests/support/redis_server.h"
#endif

#include <sstream>

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

const std::pair<const char *, const char *> type_names[] = {{"port", "p_bridge.vvlan_port_cfg"},
                                                            {"glb", "p_bridge.vvlan_glb_cfg"},
                                                            {"oui", "p_bridge.vvlan_oui_cfg"},
                                                            {"mac", "u_bridge.mac_vid_reg_noti"},
                                                            {"trap", "u_bridge.vvlan_port_cfg"}};

// The message, and the numbers of the fields that its text names.
MessagePtr read_object(const std::string &text, std::vector<uint32_t> &fields)
{
    std::istringstream words(text);
    std::string word;
    words >> word;
    const auto *row = std::ranges::find(type_names, word, &std::pair<const char *, const char *>::first);
    const ObjectType &type = *find_type(row->second);
    MessagePtr message = make_message(*type.descriptor);
    while (words >> word) {
        const size_t equals = word.find('=');
        const std::string name = word.substr(0, equals);
        if (equals == std::string::npos) {
            message = decode_key(type, word);
        } else {
            const auto *field = protobuf_c_message_descriptor_get_field_by_name(type.descriptor, name.c_str());
            fields.push_back(field->id);
            if (field->type == PROTOBUF_C_TYPE_UINT32) {
                set_member(*message, *field, static_cast<uint32_t>(std::stoul(word.substr(equals + 1))));
            }
        }
    }
    return message;
}

std::string describe_message(const ProtobufCMessage &message, const std::string &fields)
{
    const ProtobufCMessageDescriptor &descriptor = *message.descriptor;
    const auto *row =
        std::ranges::find(type_names, std::string(descriptor.name), &std::pair<const char *, const char *>::second);
    std::string key;
    encode_key(*find_type(descriptor.name), message, key);
    std::string text = row->first + (key.empty() ? "" : " " + key) + fields;
    for (unsigned i = 0; i < descriptor.n_fields; i++) {
        const ProtobufCFieldDescriptor &field = descriptor.fields[i];
        const bool is_number = field.type == PROTOBUF_C_TYPE_UINT32;
        if (const uint32_t value = is_number ? get_member<uint32_t>(message, field) : 0; value != 0) {
            text += std::string(" ") + field.name + "=" + std::to_string(value);
        }
    }
    return text;
}

std::string describe(const tq_mom_record_t &record)
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
    if (record.operate != TQ_MOM_HSET) {
        return operation + " " + describe_message(*static_cast<ProtobufCMessage *>(record.object), "");
    }
    const auto &hash = *static_cast<tq_mom_hash_t *>(record.object);
    std::string fields;
    for (uint32_t i = 0; i < hash.count; i++) {
        fields += " " + std::to_string(hash.fields[i]);
    }
    return operation + " " + describe_message(*hash.message, " fields" + fields);
}

struct Step {
    void *ctx;
    uint32_t db;
    uint64_t owner; // 0: none
    const ProtobufCMessage *object;
    std::vector<uint32_t> fields; // that the object's text names
    Recorder *to;
    tq_mom_callback_t callback; // null where there is no recorder
};

int get(const Step &s)
{
    uint32_t out = 99;
    ProtobufCMessage *found = tq_mom_get_sync(s.ctx, s.db, s.object, &out);
    s.to->add(found != nullptr ? describe_message(*found, "") : "none");
    tq_mom_tq_obj_free(found);
    return static_cast<int>(out);
}

int subscribe_fields(const Step &s)
{
    const std::vector<tq_mom_callback_t> callbacks(s.fields.size(), s.callback);
    const std::vector<void *> users(s.fields.size(), s.to);
    return tq_mom_subscribe_field(s.ctx, s.db, s.object, 0, s.fields.data(), callbacks.data(), users.data(),
                                  static_cast<uint32_t>(s.fields.size()));
}

// set_fields and subscribe_fields take the fields that the object names; _match
// compares the match fields of the object.
const std::map<std::string, std::function<int(const Step &s)>> operations = {
    {"set", [](const Step &s) { return tq_mom_set(s.ctx, s.db, s.object, s.callback, s.to); }},
    {"set_fields",
     [](const Step &s) {
         return set_fields(s.ctx, s.db, s.object, s.fields.data(), static_cast<uint32_t>(s.fields.size()));
     }},
    {"del", [](const Step &s) { return tq_mom_del(s.ctx, s.db, s.object, s.callback, s.to); }},
    {"publish", [](const Step &s) { return publish(s.ctx, s.db, s.object); }},
    {"get", get},
    {"clear_expire", [](const Step &s) { return tq_mom_clear_expire(s.ctx, s.db, s.object, s.callback, s.to); }},
    {"setow", [](const Step &s) { return tq_mom_setow(s.ctx, s.db, s.object, s.callback, s.to, s.owner); }},
    {"del_ow", [](const Step &s) { return tq_mom_del_ow(s.ctx, s.db, s.object, s.callback, s.to, s.owner); }},
    {"begin",
     [](const Step &s) {
         return s.owner == 0 ? tq_mom_dsbegin(s.ctx, s.db, s.object, 0, 1000, s.callback, s.to)
                             : tq_mom_dsbegin_ow(s.ctx, s.db, s.object, 0, 1000, s.callback, s.to, s.owner);
     }},
    {"begin_sync", [](const Step &s) { return tq_mom_dsbegin_sync(s.ctx, s.db, s.object, 0, 1000); }},
    {"end",
     [](const Step &s) {
         return s.owner == 0 ? tq_mom_dsend(s.ctx, s.db, s.object, 0, s.callback, s.to)
                             : tq_mom_dsend_ow(s.ctx, s.db, s.object, 0, s.callback, s.to, s.owner);
     }},
    {"scan", [](const Step &s) { return tq_mom_scan(s.ctx, s.db, s.object, 0, s.callback, s.to); }},
    {"scan_match", [](const Step &s) { return tq_mom_scan(s.ctx, s.db, s.object, 2, s.callback, s.to); }},
    {"list", [](const Step &s) { return tq_mom_scan_sync(s.ctx, s.db, s.object, 0, s.callback, s.to); }},
    {"subscribe", [](const Step &s) { return tq_mom_subscribe(s.ctx, s.db, s.object, 0, s.callback, s.to); }},
    {"subscribe_match", [](const Step &s) { return tq_mom_subscribe(s.ctx, s.db, s.object, 2, s.callback, s.to); }},
    {"subscribe_fields", subscribe_fields},
    {"unsubscribe", [](const Step &s) { return tq_mom_unsubscribe(s.ctx, s.db, s.object, 0, s.callback, s.to); }},
    {"connect", [](const Step &s) { return tq_mom_client_connect(s.ctx, s.db, Recorder::connected, s.to); }},
    {"connect_sync", [](const Step &s) { return tq_mom_client_connect_sync(s.ctx, s.db); }},
    {"cut", [](const Step &s) { return set_link(s.ctx, s.db, false); }},
    {"restore", [](const Step &s) { return set_link(s.ctx, s.db, true); }},
};

// Cuts what follows the separator off the text.
std::string cut_off(std::string &text, const std::string &separator)
{
    const size_t at = text.find(separator);
    const std::string rest = at == std::string::npos ? "" : text.substr(at + separator.size());
    text = text.substr(0, at);
    return rest;
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

MessagePtr make(const std::string &text)
{
    std::vector<uint32_t> fields;
    return read_object(text, fields);
}

int Recorder::callback(void *, tq_mom_record_t *record, void *user)
{
    auto &recorder = *static_cast<Recorder *>(user);
    const int result = recorder.result;
    recorder.add(describe(*record));
    return result;
}

int Recorder::connected(void *, void *user)
{
    static_cast<Recorder *>(user)->add("connected");
    return 0;
}

void Recorder::add(const std::string &line)
{
    lines_.push_back(line);
    if (on_line) {
        on_line(line);
    }
}

std::string Recorder::take()
{
    std::string text;
    for (const std::string &line : std::exchange(lines_, {})) {
        text += (text.empty() ? "" : ", ") + line;
    }
    return text;
}

Play::~Play()
{
    for (auto &client : clients_) {
        detach(&client.second);
    }
}

void *Play::ctx(const std::string &name)
{
    const auto [client, is_new] = clients_.try_emplace(name, Client{&recorders_[name + ".links"]});
    void *ctx = &client->second;
    if (is_new) {
        EXPECT_EQ(attach(ctx, store_, loop_, name), 0);
        for (const uint32_t db : {0u, 4u, 6u, 8u}) {
            EXPECT_EQ(tq_mom_client_connect_sync(ctx, db), 0);
            EXPECT_EQ(tq_mom_client_set_disconnect_cb(ctx, db, on_lost, nullptr), 0);
            EXPECT_EQ(tq_mom_client_set_reconnect_cb(ctx, db, on_back, nullptr), 0);
        }
    }
    return ctx;
}

int Play::on_lost(void *ctx, uint32_t db)
{
    static_cast<Client *>(ctx)->links->add("lost " + std::to_string(db));
    return 0;
}

int Play::on_back(void *ctx, uint32_t db, int32_t type)
{
    static_cast<Client *>(ctx)->links->add("back " + std::to_string(db) + " type " + std::to_string(type));
    return 77;
}

void Play::operator()(const std::string &script)
{
    std::string lines = script;
    std::ranges::replace(lines, '\n', ';');
    std::istringstream steps(lines);
    for (std::string line; std::getline(steps, line, ';');) {
        line.erase(0, line.find_first_not_of(' '));
        const size_t name_end = line.find_first_of(" :!");
        if (name_end == std::string::npos || line[name_end] == ' ') {
            perform(line);
            continue;
        }
        if (line[name_end] == ':') {
            dynamic_cast<VirtualLoop &>(loop_).run_pending();
        }
        const std::string expected = line.substr(std::min(line.size(), name_end + 2));
        EXPECT_EQ(told(line.substr(0, name_end)).take(), expected) << line;
    }
}

void Play::perform(const std::string &step)
{
    std::string text = step;
    const std::string result = cut_off(text, " = ");
    const std::string recorder = cut_off(text, " > ");
    const std::string owner = cut_off(text, " @");
    std::istringstream words(text);
    std::string client;
    std::string operation;
    std::string object;
    Step s{};
    words >> client >> operation >> s.db >> std::ws;
    std::getline(words, object);
    s.ctx = ctx(client);
    if (operation == "detach") {
        detach(s.ctx);
        clients_.erase(client);
        return;
    }
    s.owner = owner.empty() ? 0 : std::stoul(owner);
    s.to = recorder.empty() ? nullptr : &told(recorder);
    s.callback = recorder.empty() ? nullptr : Recorder::callback;
    const MessagePtr message = object.empty() ? nullptr : read_object(object, s.fields);
    s.object = message.get();
    EXPECT_EQ(operations.at(operation)(s), result.empty() ? 0 : std::stoi(result)) << step;
}

} // namespace vvl::mom
