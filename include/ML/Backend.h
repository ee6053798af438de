#pragma once
// The contract between the plug-in and a backend library: the call object through which the
// backend learns what is wanted, and the backend objects the plug-in then uses directly.
// Slots that the plug-in never calls keep their places as reservedN.
#include <stdexcept>
#include <string>

#include "ML/Host.h"

namespace ML::Backend {

class Session;
class Tensor;

class Instance : public virtual Reference {
public:
    virtual void reserved0() {}
    virtual Ptr<StringT<wchar_t>> getModelFolder() = 0;  // 1
    virtual void reserved2() {}
    virtual i32 getPrecision() = 0;  // 3: > 0 means networks run in F16
    virtual Ptr<StringT<char>> getVersion() = 0;  // 4
    virtual void reserved5() {}
    virtual bool supportsRefit() = 0;  // 6
};

class Model : public virtual Reference {
public:
    virtual void reserved0() {}
    virtual void reserved1() {}
    virtual void reserved2() {}
    virtual void reserved3() {}
    virtual void reserved4() {}
    virtual Result<void> run(Ptr<Session> session) = 0;  // 5
    virtual Result<Ptr<Session>> createSession() = 0;  // 6
    virtual void reserved7() {}
    virtual Result<i32> refit(Ptr<StringT<wchar_t>> weightsPath) = 0;  // 8
};

class Session : public virtual Reference {
public:
    virtual Result<void> selectWeights(i32 weightsId) = 0;  // 0
    virtual Result<void> setInput(i32 index, Ptr<Tensor> tensor) = 0;  // 1
    virtual Result<void> setOutput(i32 index, Ptr<Tensor> tensor) = 0;  // 2
};

class Tensor : public virtual Reference {
public:
    virtual void reserved0() {}
    virtual Result<void> upload(const void* source) = 0;  // 1
    virtual Result<void> download(void* destination) = 0;  // 2
    virtual Result<void> copyFrom(Ptr<Tensor> source) = 0;  // 3
    virtual Result<Ptr<Tensor>> view(Ptr<ArrayT<10>> shape, u32 dataType) = 0;  // 4
};

enum CallType : i32 {
    INIT_CALL = 1,
    LOAD_MODEL_CALL = 2,
    CREATE_TENSOR_CALL = 3,
    GET_AVAILABLE_DEVICES_CALL = 4,
};

// What the backend's mlMain receives. Each concrete call overrides the operations of its kind.
class ApiCall {
public:
    virtual i32 getCallType() = 0;                              // 0
    virtual void setError(Ptr<StringT<char>> text) = 0;         // 1
    virtual void setInstance(Ptr<Instance> instance) = 0;       // 2
    virtual u32 getDeviceId() = 0;                              // 3
    virtual Ptr<StringT<wchar_t>> getAuxFolder() = 0;           // 4
    virtual Ptr<StringT<wchar_t>> getDataFolder() = 0;          // 5
    virtual Logger* getLogger() = 0;                            // 6
    virtual Ptr<Instance> getInstance() = 0;                    // 7
    virtual void setModel(Ptr<Model> model) = 0;                // 8
    virtual Ptr<StringT<wchar_t>> getModelPath() = 0;           // 9
    virtual Ptr<StringT<char>> getOptions() = 0;                // 10
    virtual void setTensor(Ptr<Tensor> tensor) = 0;             // 11
    virtual Ptr<ArrayT<10>> getShape() = 0;                     // 12
    virtual u32 getDataType() = 0;                              // 13
    virtual void addDevice(Ptr<StringT<char>> name) = 0;        // 14
    virtual void setDefaultDevice(u32 index) = 0;               // 15
    virtual void setLabel(Ptr<StringT<char>> label) = 0;        // 16
    virtual void setDetail(Ptr<StringT<char>> detail) = 0;      // 17

protected:
    ~ApiCall() = default;
};

// Implements every slot: setError stores the text, every other slot refuses.
class DefaultApiCall : public ApiCall {
public:
    i32 getCallType() override { refuse(); }
    void setError(Ptr<StringT<char>> text) override { error = toStd(text); }
    void setInstance(Ptr<Instance>) override { refuse(); }
    u32 getDeviceId() override { refuse(); }
    Ptr<StringT<wchar_t>> getAuxFolder() override { refuse(); }
    Ptr<StringT<wchar_t>> getDataFolder() override { refuse(); }
    Logger* getLogger() override { refuse(); }
    Ptr<Instance> getInstance() override { refuse(); }
    void setModel(Ptr<Model>) override { refuse(); }
    Ptr<StringT<wchar_t>> getModelPath() override { refuse(); }
    Ptr<StringT<char>> getOptions() override { refuse(); }
    void setTensor(Ptr<Tensor>) override { refuse(); }
    Ptr<ArrayT<10>> getShape() override { refuse(); }
    u32 getDataType() override { refuse(); }
    void addDevice(Ptr<StringT<char>>) override { refuse(); }
    void setDefaultDevice(u32) override { refuse(); }
    void setLabel(Ptr<StringT<char>>) override { refuse(); }
    void setDetail(Ptr<StringT<char>>) override { refuse(); }

    const std::string& getError() const { return error; }

protected:
    ~DefaultApiCall() = default;
    std::string error;

private:
    [[noreturn]] static void refuse() { throw std::runtime_error("Function in DefaultHost should not be called"); }
};

// Entry points of a backend library.
using MainFunction = i32 (*)(ApiCall* call, u64 reserved);
using ShutdownFunction = void (*)();

}  // namespace ML::Backend
