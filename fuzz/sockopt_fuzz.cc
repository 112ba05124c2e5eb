// SPDX-License-Identifier: GPL-2.0
// Rule and directory records through the socket options: any code, any length, any buffer, with and
// without privilege. Each result is compared with what a model of the two sets says. Input: a
// sequence of calls.
#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/fuzz_kernel.h"
#include "fuzz/input.h"
#include "fuzz/set_model.h"
#include "fuzz/uk_fuzz.h"
#include "ukern/door/uk_net.h"

namespace {

using fuzz::check;
using fuzz::check_equal;
using fuzz::Input;

constexpr int kInet = 2;
constexpr int kCallsMax = 24;

// A buffer of the caller, of exactly this size.
class UserBuffer {
 public:
  explicit UserBuffer(const std::string &bytes) : bytes_(bytes.begin(), bytes.end()) {
    if (!bytes_.empty()) check_equal(uk_user_add(bytes_.data(), bytes_.size()), 0, "user memory");
  }
  ~UserBuffer() {
    if (!bytes_.empty()) uk_user_del(bytes_.data());
  }
  UserBuffer(const UserBuffer &) = delete;
  UserBuffer &operator=(const UserBuffer &) = delete;

  char *data() { return bytes_.data(); }
  std::string text() const { return {bytes_.begin(), bytes_.end()}; }

 private:
  std::vector<char> bytes_;
};

// One call: the length that it claims, the bytes that are there.
struct Call {
  int code;
  unsigned length;
  std::string bytes;
};

class Session {
 public:
  void run(Input &input) {
    for (int calls = 0; calls < kCallsMax && !input.empty(); ++calls) step(input);
    list_all();
    flush();
  }

 private:
  void step(Input &input) {
    const unsigned kind = input.u8();
    const bool get = kind & 32;
    Call call;
    call.code = 176 + static_cast<int>(kind & 31);
    call.bytes = get ? read_info(input) : read_set_record(input, call.code);
    call.length = static_cast<unsigned>(call.bytes.size());
    if (kind & 128) {
      call.length = input.u16();
      call.bytes.resize(input.u16());
    }
    if (kind & 64) return refused(call, get);
    get ? do_get(call) : do_set(call);
    fuzz::check_hits(rules_, "/" + std::string(input.bytes(100).c_str()));
  }

  static std::string read_set_record(Input &input, int code) {
    if (code == OX_SO_SET_DAEMON) return input.bytes() + '\0';
    return fuzz::read_record(input, code < OX_SO_DIR_SET_FIRST ? sizeof(prule) : sizeof(dir));
  }

  std::string read_info(Input &input) const {
    prule_info info = {};
    info.op = static_cast<int>(input.u8() % 6);
    info.rulenum = static_cast<int>(rules_.records().size() + (input.u8() % 8 == 7));
    fuzz::read_uuid(input).copy(reinterpret_cast<char *>(info.uuid), sizeof(info.uuid));
    std::string bytes(reinterpret_cast<const char *>(&info), sizeof(info));
    return bytes;
  }

  static bool known(const Call &call, bool get) {
    if (get) return call.code >= OX_SO_RULE_GET_FIRST && call.code <= OX_SO_RULE_GET_LAST;
    return (call.code >= OX_SO_RULE_SET_FIRST && call.code <= OX_SO_RULE_SET_LAST) ||
           (call.code >= OX_SO_DIR_SET_FIRST && call.code <= OX_SO_DIR_SET_LAST);
  }

  static void refused(const Call &call, bool get) {
    const fuzz::Unprivileged unprivileged;
    UserBuffer buffer(call.bytes);
    int length = static_cast<int>(call.length);
    const int result = get ? uk_getsockopt(kInet, call.code, buffer.data(), &length)
                           : uk_setsockopt(kInet, call.code, buffer.data(), call.length);
    check_equal(result, known(call, get) ? -EPERM : -ENOPROTOOPT, "without privilege");
    check(buffer.text() == call.bytes, "nothing told without privilege");
  }

  void do_set(const Call &call) {
    UserBuffer buffer(call.bytes);
    const int result = uk_setsockopt(kInet, call.code, buffer.data(), call.length);
    switch (call.code) {
      case OX_SO_REP_ADD:
        return added(rules_, call, result);
      case OX_SO_DIR_ADD:
        return added(dirs_, call, result);
      case OX_SO_REP_DEL:
        return removed(rules_, call, result);
      case OX_SO_DIR_DEL:
        return removed(dirs_, call, result);
      case OX_SO_REP_FLUSH:
        rules_.flush();
        return check_equal(result, 0, "flush of the rules");
      case OX_SO_DIR_FLUSH:
        dirs_.flush();
        return check_equal(result, 0, "flush of the directories");
      case OX_SO_SET_DAEMON:
        return daemon_set(call, result);
      default:
        check_equal(result, known(call, false) ? OX_ERR_REQUEST : -ENOPROTOOPT, "unknown request");
    }
  }

  /* Bytes that could not be copied, out of those that were asked for. */
  static void check_left(int result, std::size_t wanted) {
    check(result > 0 && static_cast<std::size_t>(result) <= wanted, "bytes left uncopied");
  }

  template <class Model>
  static void added(Model &model, const Call &call, int result) {
    if (call.length != model.record_size())
      return check_equal(result, OX_ERR_SIZE, "size of an add");
    if (call.bytes.size() < model.record_size()) return check_left(result, model.record_size());
    check_equal(result, model.add(call.bytes.substr(0, model.record_size())), "add");
  }

  template <class Model>
  static void removed(Model &model, const Call &call, int result) {
    if (call.length != model.record_size())
      return check_equal(result, OX_ERR_REQUEST, "size of a delete");
    if (call.bytes.size() < OX_UUID_LEN) return check_left(result, OX_UUID_LEN);
    check_equal(result, model.remove(call.bytes), "delete");
  }

  static void daemon_set(const Call &call, int result) {
    if (call.length == 0) return check_equal(result, 0, "no daemon path");
    const bool ends = call.bytes.find('\0') < OX_DAEMON_PATH_LEN;
    if (!ends && call.bytes.size() < OX_DAEMON_PATH_LEN)
      return check_equal(result, -EFAULT, "a daemon path that leaves the buffer");
    check_equal(result, call.length, "daemon path");
  }

  void do_get(const Call &call) {
    UserBuffer buffer(call.bytes);
    int length = static_cast<int>(call.length);
    const int result = uk_getsockopt(kInet, call.code, buffer.data(), &length);
    if (!known(call, true)) return check_equal(result, -ENOPROTOOPT, "unregistered get");
    if (call.code > OX_SO_GET_RULES) return check_equal(result, OX_ERR_REQUEST, "unknown get");
    const bool all = call.code == OX_SO_GET_RULES;
    if (all ? call.length != sizeof(prule_info) : call.length < sizeof(prule_info))
      return check_equal(result, OX_ERR_SIZE, "size of a get");
    if (call.bytes.size() < sizeof(prule_info)) return check_left(result, sizeof(prule_info));
    prule_info info;
    std::memcpy(&info, call.bytes.data(), sizeof(info));
    if (call.code == OX_SO_GET_INFO) return got_info(info, call.bytes, buffer.text(), result);
    if (all)
      got_rules(info, buffer.text(), result, length);
    else
      got_rule(info, buffer.text(), result, length);
  }

  void got_info(const prule_info &info, std::string expected, const std::string &got, int result) {
    int answer = info.rulenum;
    if (info.op == OX_INFO_COUNT) answer = static_cast<int>(rules_.records().size());
    if (info.op == OX_INFO_EXIST && rules_.find(uuid_of(info))) answer = 1;
    expected.replace(4, 4, reinterpret_cast<const char *>(&answer), 4);
    const bool known_op = info.op == OX_INFO_COUNT || info.op == OX_INFO_EXIST;
    check_equal(result, known_op ? 0 : OX_ERR_SIZE, "get information");
    check(got == expected, "the answer of get information");
  }

  void got_rule(const prule_info &info, const std::string &got, int result, int length) {
    const std::string *rule = rules_.find(uuid_of(info));
    if (!rule) return check_equal(result, OX_ERR_NOENT, "get an absent rule");
    check_equal(length, sizeof(prule), "length of a rule");
    if (got.size() < sizeof(prule)) return check_left(result, sizeof(prule));
    check_equal(result, 0, "get a rule");
    check(got.substr(0, sizeof(prule)) == *rule, "the rule got");
  }

  void got_rules(const prule_info &info, const std::string &got, int result, int length) {
    const std::size_t count = rules_.records().size();
    if (info.rulenum != static_cast<int>(count)) return check_equal(result, OX_ERR_COUNT, "count");
    if (got.size() < count * sizeof(prule)) return check_left(result, sizeof(prule));
    check_equal(result, 0, "get all rules");
    check_equal(length, static_cast<long long>(count * sizeof(prule)), "length of all rules");
    for (std::size_t i = 0; i < count; ++i)
      check(got.substr(i * sizeof(prule), sizeof(prule)) == rules_.records()[i], "a rule listed");
  }

  static std::string uuid_of(const prule_info &info) {
    return {reinterpret_cast<const char *>(info.uuid), sizeof(info.uuid)};
  }

  void list_all() {
    Call call;
    call.code = OX_SO_GET_RULES;
    call.length = sizeof(prule_info);
    prule_info info = {};
    info.rulenum = static_cast<int>(rules_.records().size());
    call.bytes.assign(reinterpret_cast<const char *>(&info), sizeof(info));
    call.bytes.resize(std::max(sizeof(info), rules_.records().size() * sizeof(prule)));
    do_get(call);
  }

  void flush() {
    do_set({OX_SO_REP_FLUSH, 0, ""});
    do_set({OX_SO_DIR_FLUSH, 0, ""});
  }

  fuzz::RuleModel rules_;
  fuzz::SetModel dirs_{sizeof(dir)};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  fuzz::Kernel &kernel = fuzz::Kernel::get();
  Input input(data, size);
  Session().run(input);
  kernel.check_leaks();
  return 0;
}
