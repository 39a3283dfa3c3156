#pragma once

// True only inside an application sandbox: on Linux a Flatpak, recognised by the "/.flatpak-info" file that
// every Flatpak sandbox carries. Sandboxed code reaches other applications' folders only through granted
// access and never moves folders at start-up.
bool HLRunningInAppSandbox();
