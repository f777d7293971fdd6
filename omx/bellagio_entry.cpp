// Entry point for the Bellagio OpenMAX IL core (libomxil-bellagio).
//
// Bellagio's static component loader finds components through a registry
// file that `omxregister-bellagio` writes: the tool loads each library,
// calls omx_component_library_Setup(NULL) for the number of components and
// then once more with that many zero-filled records to fill in. At
// OMX_GetHandle time the loader calls the library again, allocates an
// OMX_COMPONENTTYPE, calls the record's constructor with it and the requested
// name, then calls SetCallbacks through the table the constructor filled.
//
// Two details of the loader shape this file:
//   - after the constructor returns, the loader stores its own pointer in
//     the `loader` member of Bellagio's base component record, which it
//     expects at pComponentPrivate, and checks it again in OMX_FreeHandle.
//     pComponentPrivate therefore points at a BellagioBinding, which begins
//     with such a record, and not at the component object itself;
//   - the core releases the strings and arrays the setup function hands
//     over with free() in OMX_Deinit, so they come from malloc().
//
// The client holds the loader's OMX_COMPONENTTYPE, not the component's
// embedded one, so the component is told to use it as its callback handle;
// every call below passes it on as hComp.
#include <OMX_Component.h>
#include <OMX_Core.h>
#include <bellagio/omx_base_component.h>
#include <bellagio/st_static_component_loader.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "omx/log.h"
#include "omx/omx_evrc_adec.h"

namespace {

// What pComponentPrivate of a Bellagio handle points at.
struct BellagioBinding {
    omx_base_component_PrivateType core_view;  // only `loader` is used, by the core
    omx_evrc_adec *component;
};

omx_evrc_adec *component_of(OMX_HANDLETYPE h) {
    if (h == nullptr) return nullptr;
    auto *binding = static_cast<BellagioBinding *>(static_cast<OMX_COMPONENTTYPE *>(h)->pComponentPrivate);
    return binding != nullptr ? binding->component : nullptr;
}

// OMX_U32 is `unsigned long`; the component's port and command arguments are
// 32-bit. OMX_ALL (0xFFFFFFFF) survives the narrowing unchanged.
unsigned int u32(OMX_U32 v) { return static_cast<unsigned int>(v); }

#define EVRC_FORWARD(call)                              \
    omx_evrc_adec *c = component_of(h);                 \
    if (c == nullptr) return OMX_ErrorInvalidComponent; \
    return c->call

OMX_ERRORTYPE GetComponentVersion(OMX_HANDLETYPE h, OMX_STRING name, OMX_VERSIONTYPE *comp,
                                  OMX_VERSIONTYPE *spec_version, OMX_UUIDTYPE *uuid) {
    EVRC_FORWARD(get_component_version(h, name, comp, spec_version, uuid));
}

OMX_ERRORTYPE SendCommand(OMX_HANDLETYPE h, OMX_COMMANDTYPE cmd, OMX_U32 param, OMX_PTR data) {
    EVRC_FORWARD(send_command(h, cmd, u32(param), data));
}

OMX_ERRORTYPE GetParameter(OMX_HANDLETYPE h, OMX_INDEXTYPE index, OMX_PTR params) {
    EVRC_FORWARD(get_parameter(h, index, params));
}

OMX_ERRORTYPE SetParameter(OMX_HANDLETYPE h, OMX_INDEXTYPE index, OMX_PTR params) {
    EVRC_FORWARD(set_parameter(h, index, params));
}

OMX_ERRORTYPE GetConfig(OMX_HANDLETYPE h, OMX_INDEXTYPE index, OMX_PTR config) {
    EVRC_FORWARD(get_config(h, index, config));
}

OMX_ERRORTYPE SetConfig(OMX_HANDLETYPE h, OMX_INDEXTYPE index, OMX_PTR config) {
    EVRC_FORWARD(set_config(h, index, config));
}

OMX_ERRORTYPE GetExtensionIndex(OMX_HANDLETYPE h, OMX_STRING name, OMX_INDEXTYPE *index) {
    EVRC_FORWARD(get_extension_index(h, name, index));
}

OMX_ERRORTYPE GetState(OMX_HANDLETYPE h, OMX_STATETYPE *state) { EVRC_FORWARD(get_state(h, state)); }

OMX_ERRORTYPE ComponentTunnelRequest(OMX_HANDLETYPE h, OMX_U32 port, OMX_HANDLETYPE peer, OMX_U32 peer_port,
                                     OMX_TUNNELSETUPTYPE *setup) {
    EVRC_FORWARD(component_tunnel_request(h, u32(port), peer, u32(peer_port), setup));
}

OMX_ERRORTYPE UseBuffer(OMX_HANDLETYPE h, OMX_BUFFERHEADERTYPE **hdr, OMX_U32 port, OMX_PTR app, OMX_U32 bytes,
                        OMX_U8 *buffer) {
    EVRC_FORWARD(use_buffer(h, hdr, u32(port), app, u32(bytes), buffer));
}

OMX_ERRORTYPE AllocateBuffer(OMX_HANDLETYPE h, OMX_BUFFERHEADERTYPE **hdr, OMX_U32 port, OMX_PTR app, OMX_U32 bytes) {
    EVRC_FORWARD(allocate_buffer(h, hdr, u32(port), app, u32(bytes)));
}

OMX_ERRORTYPE FreeBuffer(OMX_HANDLETYPE h, OMX_U32 port, OMX_BUFFERHEADERTYPE *hdr) {
    EVRC_FORWARD(free_buffer(h, u32(port), hdr));
}

OMX_ERRORTYPE EmptyThisBuffer(OMX_HANDLETYPE h, OMX_BUFFERHEADERTYPE *hdr) { EVRC_FORWARD(empty_this_buffer(h, hdr)); }

OMX_ERRORTYPE FillThisBuffer(OMX_HANDLETYPE h, OMX_BUFFERHEADERTYPE *hdr) { EVRC_FORWARD(fill_this_buffer(h, hdr)); }

OMX_ERRORTYPE SetCallbacks(OMX_HANDLETYPE h, OMX_CALLBACKTYPE *callbacks, OMX_PTR app) {
    if (h != nullptr) static_cast<OMX_COMPONENTTYPE *>(h)->pApplicationPrivate = app;
    EVRC_FORWARD(set_callbacks(h, callbacks, app));
}

OMX_ERRORTYPE UseEGLImage(OMX_HANDLETYPE h, OMX_BUFFERHEADERTYPE **hdr, OMX_U32 port, OMX_PTR app, void *image) {
    EVRC_FORWARD(use_EGL_image(h, hdr, u32(port), app, image));
}

OMX_ERRORTYPE ComponentRoleEnum(OMX_HANDLETYPE h, OMX_U8 *role, OMX_U32 index) {
    EVRC_FORWARD(component_role_enum(h, role, u32(index)));
}

#undef EVRC_FORWARD

// Stops the component and releases it and the binding. The core frees the
// OMX_COMPONENTTYPE itself afterwards.
OMX_ERRORTYPE ComponentDeInit(OMX_HANDLETYPE h) {
    if (h == nullptr) return OMX_ErrorBadParameter;
    auto *omx = static_cast<OMX_COMPONENTTYPE *>(h);
    auto *binding = static_cast<BellagioBinding *>(omx->pComponentPrivate);
    if (binding == nullptr) return OMX_ErrorNone;
    OMX_ERRORTYPE err = OMX_ErrorNone;
    if (binding->component != nullptr) {
        err = binding->component->component_deinit(h);
        delete binding->component;
    }
    delete binding;
    omx->pComponentPrivate = nullptr;
    return err;
}

void fill_function_table(OMX_COMPONENTTYPE *omx) {
    omx->GetComponentVersion = GetComponentVersion;
    omx->SendCommand = SendCommand;
    omx->GetParameter = GetParameter;
    omx->SetParameter = SetParameter;
    omx->GetConfig = GetConfig;
    omx->SetConfig = SetConfig;
    omx->GetExtensionIndex = GetExtensionIndex;
    omx->GetState = GetState;
    omx->ComponentTunnelRequest = ComponentTunnelRequest;
    omx->UseBuffer = UseBuffer;
    omx->AllocateBuffer = AllocateBuffer;
    omx->FreeBuffer = FreeBuffer;
    omx->EmptyThisBuffer = EmptyThisBuffer;
    omx->FillThisBuffer = FillThisBuffer;
    omx->SetCallbacks = SetCallbacks;
    omx->ComponentDeInit = ComponentDeInit;
    omx->UseEGLImage = UseEGLImage;
    omx->ComponentRoleEnum = ComponentRoleEnum;
}

// Builds the component behind a handle the core has allocated. Any failure
// is reported as OMX_ErrorUndefined: for that code the loader calls
// ComponentDeInit and frees the handle, whereas for
// OMX_ErrorInsufficientResources it would hand the half-built handle to the
// client.
OMX_ERRORTYPE construct(OMX_COMPONENTTYPE *omx, OMX_STRING name) {
    if (omx == nullptr || name == nullptr) return OMX_ErrorBadParameter;
    omx->nSize = sizeof(OMX_COMPONENTTYPE);
    omx->nVersion.nVersion = omx_evrc_adec::kVersion;
    omx->pComponentPrivate = nullptr;
    fill_function_table(omx);

    auto *binding = new (std::nothrow) BellagioBinding();
    if (binding == nullptr) {
        OMX_EVRC_LOG("Error: cannot allocate the component binding\n");
        return OMX_ErrorUndefined;
    }
    binding->core_view.openmaxStandComp = omx;
    omx->pComponentPrivate = binding;

    binding->component = static_cast<omx_evrc_adec *>(get_omx_component_factory_fn());
    if (binding->component == nullptr) {
        OMX_EVRC_LOG("Error: cannot create the component %s\n", name);
        return OMX_ErrorUndefined;
    }
    binding->component->set_callback_handle(omx);
    const OMX_ERRORTYPE err = binding->component->component_init(name);
    if (err != OMX_ErrorNone) {
        OMX_EVRC_LOG("Error: component_init(%s) failed: %08x\n", name, static_cast<unsigned>(err));
        return OMX_ErrorUndefined;
    }
    return OMX_ErrorNone;
}

char *copy_string(const char *s) {
    const std::size_t n = std::strlen(s) + 1;
    char *out = static_cast<char *>(std::malloc(n));
    if (out != nullptr) std::memcpy(out, s, n);
    return out;
}

// Fills one loader record: the generic name, and both names under which
// the component can be requested, each with the decoder role.
bool describe_component(stLoaderComponentType *rec) {
    static const char *const names[] = {omx_evrc_adec::kName, omx_evrc_adec::kTunneledName};
    constexpr unsigned kNames = sizeof(names) / sizeof(names[0]);

    rec->componentVersion.nVersion = omx_evrc_adec::kVersion;
    rec->name = copy_string(omx_evrc_adec::kName);
    rec->name_specific = static_cast<char **>(std::calloc(kNames, sizeof(char *)));
    rec->role_specific = static_cast<char **>(std::calloc(kNames, sizeof(char *)));
    if (rec->name == nullptr || rec->name_specific == nullptr || rec->role_specific == nullptr) return false;
    rec->name_specific_length = kNames;
    for (unsigned i = 0; i < kNames; ++i) {
        rec->name_specific[i] = copy_string(names[i]);
        rec->role_specific[i] = copy_string(omx_evrc_adec::kRole);
        if (rec->name_specific[i] == nullptr || rec->role_specific[i] == nullptr) return false;
    }
    rec->constructor = construct;
    rec->nqualitylevels = 0;
    rec->multiResourceLevel = nullptr;
    return true;
}

}  // namespace

// Component list for Bellagio's static loader: with a null list returns the
// number of components this library provides; otherwise fills the records
// the caller has allocated, one per component, and returns the same number.
extern "C" EVRC_API int omx_component_library_Setup(stLoaderComponentType **list) {
    constexpr int kComponents = 1;
    if (list == nullptr) return kComponents;
    if (list[0] == nullptr || !describe_component(list[0])) {
        OMX_EVRC_LOG("Error: cannot describe the component to the OpenMAX IL core\n");
        return 0;
    }
    return kComponents;
}
