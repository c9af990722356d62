#include <string.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "krand/core/krand_core.h"
#include "krand/core/settings_database.h"
#include "krand/core/settings_failure.h"
#include "krand/core/settings_file.h"
#include "krand/core/settings_settler.h"
#include "krand/core/string_array_codec.h"
#include "krand/core/transaction_gate.h"
#include "tevra/core/logger.h"
#include "tevra/core/platform_config.h"

namespace krand::core {

namespace {

const tevra::core::ConfigKey kBusyTimeout{"Settings", "busy_timeout_ms", "2000"};
constexpr long kLongestBusyTimeoutMs = 60000;

using Database = SettingsDatabase;
using Type = SettingsDatabase::Type;

// The one open store of the process.
struct Store {
  // Synchronised by themselves.
  TransactionGate gate;
  // The process that opened the store, 0 when none is open. A child after fork shares the file's
  // state and locks with its parent and must not touch them, so it finds no store.
  std::atomic<pid_t> opener{0};
  // Guarded by gate.
  std::unique_ptr<Database> database;
  std::unique_ptr<SettingsSettler> settler;
  bool transaction_changed = false;
  bool transaction_spoilt = false;
  // Changes only in init and deinit.
  std::string location;
};

// Never destroyed: threads may still ask while the process ends, and a child must not close it.
Store& TheStore() {
  static Store* const store = new Store;
  return *store;
}

tevra::core::Logger* Log() {
  static tevra::core::Logger* const logger = tevra::core::Logger::GetLogger("krand");
  return logger;
}

// Runs `body` and turns what it throws into a status and an Error line.
krand_core_status Guarded(const std::function<krand_core_status()>& body) {
  try {
    return body();
  } catch (const SettingsFailure& failure) {
    Log()->Error("Settings: %s", failure.what());
    return failure.status();
  } catch (const std::bad_alloc&) {
    return KRAND_CORE_NO_MEMORY;
  } catch (const std::exception& error) {
    Log()->Error("Settings: %s", error.what());
    return KRAND_CORE_ERROR;
  }
}

krand_core_status WithDatabase(const std::function<krand_core_status(Store&, Database&)>& body) {
  return Guarded([&] {
    Store& store = TheStore();
    if (store.opener.load() != getpid()) {
      return KRAND_CORE_NOT_INITIALIZED;
    }
    const TransactionGate::Lock lock = store.gate.Enter();
    if (!store.database) {
      return KRAND_CORE_NOT_INITIALIZED;
    }
    return body(store, *store.database);
  });
}

// `body` tells whether it changed anything.
krand_core_status WithWritable(const std::function<bool(Database&)>& body) {
  return WithDatabase([&](Store& store, Database& database) {
    const bool in_transaction = store.gate.IsTakenByThisThread();
    if (in_transaction && store.transaction_spoilt) {
      throw SettingsFailure(store.location + ": an earlier write of this transaction failed");
    }
    bool changed = false;
    try {
      changed = body(database);
    } catch (...) {
      store.transaction_spoilt = in_transaction;
      throw;
    }
    if (in_transaction) {
      store.transaction_changed |= changed;
    } else if (changed) {
      store.settler->NoteChange();
    }
    return KRAND_CORE_OK;
  });
}

void EndTransaction(Store& store) {
  store.transaction_changed = false;
  store.transaction_spoilt = false;
  store.gate.GiveBack();
}

void RollBack(Store& store) {
  try {
    store.database->Rollback();
  } catch (const SettingsFailure& failure) {
    Log()->Error("Settings: %s", failure.what());
  }
  EndTransaction(store);
}

krand_core_status CommitOrRollBack(Store& store) {
  try {
    if (store.transaction_spoilt) {
      throw SettingsFailure(store.location + ": an earlier write of this transaction failed");
    }
    store.database->Commit();
  } catch (...) {
    RollBack(store);
    throw;
  }
  if (store.transaction_changed) {
    store.settler->NoteChange();
  }
  EndTransaction(store);
  return KRAND_CORE_OK;
}

bool IsDomain(std::string_view domain) {
  if (domain.empty() || domain.front() == '.') {
    return false;
  }
  for (const char c : domain) {
    if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '.' && c != '_' && c != '-') {
      return false;
    }
  }
  return true;
}

krand_core_status OpenStore(Store& store, const char* domain) {
  const tevra::core::PlatformConfig& config = tevra::core::PlatformConfig::Get();
  store.location = SettingsFile::PathOf(domain);
  const long busy_timeout_ms = config.GetInt(kBusyTimeout, 0, kLongestBusyTimeoutMs);
  store.database = std::make_unique<Database>(store.location, static_cast<int>(busy_timeout_ms));
  store.settler = std::make_unique<SettingsSettler>(store.location, store.gate, *store.database);
  store.settler->Start();
  store.opener = getpid();
  return KRAND_CORE_OK;
}

// A malloc'd copy. Texts in the store never hold a zero byte: the C functions cannot write one.
char* CopyText(const std::string& text) {
  if (text.find('\0') != std::string::npos) {
    throw SettingsFailure(TheStore().location + ": holds a damaged entry");
  }
  char* copy = strdup(text.c_str());
  if (copy == nullptr) {
    throw std::bad_alloc();
  }
  return copy;
}

struct ArrayDeleter {
  void operator()(char** array) const { krand_core_free_string_array(array); }
};

char** CopyArray(const std::vector<std::string>& texts) {
  std::unique_ptr<char*[], ArrayDeleter> array(krand_core_alloc_string_array(texts.size()));
  if (!array) {
    throw std::bad_alloc();
  }
  for (size_t i = 0; i < texts.size(); ++i) {
    array[i] = CopyText(texts[i]);
  }
  return array.release();
}

// Reads a value of one type; `take` gets its bytes, or null when there is no such key.
krand_core_status ReadValue(const char* key, Type type,
                            const std::function<void(const std::string*)>& take) {
  return WithDatabase([&](Store&, Database& database) {
    const std::optional<Database::Value> value = database.Read(key);
    if (value && value->type != type) {
      return KRAND_CORE_WRONG_TYPE;
    }
    take(value ? &value->bytes : nullptr);
    return KRAND_CORE_OK;
  });
}

krand_core_status ReadText(const char* key, Type type, char** text) {
  if (key == nullptr || text == nullptr) {
    return KRAND_CORE_INVALID_ARGUMENT;
  }
  return ReadValue(key, type, [text](const std::string* bytes) {
    *text = bytes == nullptr ? nullptr : CopyText(*bytes);
  });
}

krand_core_status WriteText(const char* key, Type type, const char* text) {
  if (key == nullptr || text == nullptr) {
    return KRAND_CORE_INVALID_ARGUMENT;
  }
  return WithWritable([&](Database& database) {
    database.Write(key, type, text);
    return true;
  });
}

}  // namespace

}  // namespace krand::core

using namespace krand::core;

krand_core_status krand_core_settings_init(const char* domain) {
  krand_core_trace("krand_core_settings_init");
  if (domain == nullptr || !IsDomain(domain)) {
    return KRAND_CORE_INVALID_ARGUMENT;
  }
  return Guarded([domain] {
    Store& store = TheStore();
    const pid_t opener = store.opener.load();
    if (opener != 0) {
      throw SettingsFailure(
          store.location + (opener == getpid() ? ": is already open" : ": is open in the parent"),
          KRAND_CORE_ERROR);
    }
    const TransactionGate::Lock lock = store.gate.Enter();
    return store.database ? KRAND_CORE_ERROR : OpenStore(store, domain);
  });
}

int krand_core_settings_exist(const char* domain) {
  int answer = -1;
  if (domain != nullptr && IsDomain(domain)) {
    Guarded([&] {
      answer = SettingsFile::HasTraces(SettingsFile::PathOf(domain)) ? 1 : 0;
      return KRAND_CORE_OK;
    });
  }
  return answer;
}

krand_core_status krand_core_settings_deinit(void) {
  krand_core_trace("krand_core_settings_deinit");
  SettingsSettler* settler = nullptr;
  const krand_core_status status = WithDatabase([&](Store& store, Database&) {
    if (store.gate.IsTakenByThisThread()) {
      RollBack(store);
    }
    settler = store.settler.get();
    return KRAND_CORE_OK;
  });
  if (status != KRAND_CORE_OK) return status;
  settler->Stop();  // outside the gate, which its thread may be waiting for
  return WithDatabase([](Store& store, Database&) {
    store.opener = 0;
    store.settler.reset();
    store.database.reset();
    store.location.clear();
    return KRAND_CORE_OK;
  });
}

const char* krand_core_settings_location(void) {
  return TheStore().location.c_str();
}

char** krand_core_settings_get_keys_starting_with(const char* prefix) {
  char** keys = nullptr;
  if (prefix != nullptr) {
    WithDatabase([&](Store&, Database& database) {
      keys = CopyArray(database.Keys(prefix));
      return KRAND_CORE_OK;
    });
  }
  return keys;
}

krand_core_status krand_core_settings_get_json_value(const char* key, char** text) {
  return ReadText(key, Type::kJson, text);
}

krand_core_status krand_core_settings_set_json_value(const char* key, const char* text) {
  return WriteText(key, Type::kJson, text);
}

krand_core_status krand_core_settings_get_string_value(const char* key, char** text) {
  return ReadText(key, Type::kString, text);
}

krand_core_status krand_core_settings_set_string_value(const char* key, const char* text) {
  return WriteText(key, Type::kString, text);
}

krand_core_status krand_core_settings_get_arrayofstring_value(const char* key, char*** array,
                                                              size_t* count) {
  if (key == nullptr || array == nullptr) {
    return KRAND_CORE_INVALID_ARGUMENT;
  }
  return ReadValue(key, Type::kStringArray, [&](const std::string* bytes) {
    size_t length = 0;
    char** copy = nullptr;
    if (bytes != nullptr) {
      const std::optional<std::vector<std::string>> texts = StringArrayCodec::Decode(*bytes);
      if (!texts) {
        throw SettingsFailure(TheStore().location + ": holds a damaged entry");
      }
      length = texts->size();
      copy = CopyArray(*texts);
    }
    *array = copy;
    if (count != nullptr) {
      *count = length;
    }
  });
}

krand_core_status krand_core_settings_set_arrayofstring_value(const char* key, char* const* array) {
  if (key == nullptr || array == nullptr) {
    return KRAND_CORE_INVALID_ARGUMENT;
  }
  return WithWritable([&](Database& database) {
    std::vector<std::string> texts;
    for (; *array != nullptr; ++array) {
      texts.emplace_back(*array);
    }
    database.Write(key, Type::kStringArray, StringArrayCodec::Encode(texts));
    return true;
  });
}

int krand_core_settings_does_key_exist(const char* key) {
  int answer = -1;
  if (key != nullptr) {
    WithDatabase([&](Store&, Database& database) {
      answer = database.Exists(key) ? 1 : 0;
      return KRAND_CORE_OK;
    });
  }
  return answer;
}

krand_core_status krand_core_settings_delete_key(const char* key) {
  if (key == nullptr) {
    return KRAND_CORE_INVALID_ARGUMENT;
  }
  return WithWritable([key](Database& database) { return database.Delete(key); });
}

krand_core_status krand_core_settings_begin(void) {
  krand_core_trace("krand_core_settings_begin");
  return WithDatabase([](Store& store, Database& database) {
    if (store.gate.IsTakenByThisThread()) {
      return KRAND_CORE_ERROR;
    }
    database.Begin();
    store.gate.Take();
    return KRAND_CORE_OK;
  });
}

krand_core_status krand_core_settings_commit(void) {
  krand_core_trace("krand_core_settings_commit");
  return WithDatabase([](Store& store, Database&) {
    return store.gate.IsTakenByThisThread() ? CommitOrRollBack(store) : KRAND_CORE_ERROR;
  });
}

krand_core_status krand_core_settings_rollback(void) {
  return WithDatabase([](Store& store, Database&) {
    if (!store.gate.IsTakenByThisThread()) {
      return KRAND_CORE_ERROR;
    }
    RollBack(store);
    return KRAND_CORE_OK;
  });
}

krand_core_status krand_core_settings_settle(void) {
  SettingsSettler* settler = nullptr;
  const krand_core_status status = WithDatabase([&](Store& store, Database&) {
    settler = store.settler.get();
    return store.gate.IsTakenByThisThread() ? KRAND_CORE_ERROR : KRAND_CORE_OK;
  });
  if (status != KRAND_CORE_OK) return status;
  return Guarded([settler] {
    settler->Settle();
    return KRAND_CORE_OK;
  });
}

krand_core_status krand_core_settings_set_mark(void) {
  return WithWritable([](Database& database) { return database.Mark(); });
}

int krand_core_settings_has_mark(void) {
  int answer = -1;
  WithDatabase([&](Store&, Database& database) {
    answer = database.IsMarked() ? 1 : 0;
    return KRAND_CORE_OK;
  });
  return answer;
}
