#include "Platform/Dispatch.h"
#include "Platform/Foundation.h"
#include "Platform/NEProvider.h"

int main() {
    {
        const platform::NSAutoreleasePool pool;
        platform::NEProvider::startSystemExtensionMode();
    }
    platform::dispatch_main();
}
