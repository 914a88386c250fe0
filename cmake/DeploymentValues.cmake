# Values a deployment supplies. Outside build scripts set these by name.
set(VELMORA_VERSION "1.0.0" CACHE STRING "Version reported to pages in \"hello\"")
set(VELMORA_BUILTIN_ORIGINS
    "https://app.velmora.example;https://velmora.example;https://www.velmora.example"
    CACHE STRING "The web application's three origins: app host, bare domain, www. form")
set(VELMORA_PRODUCTION_KEY "" CACHE STRING
    "Production pass key: base64 of a 65-byte uncompressed P-256 point (may be empty in development)")
set(VELMORA_DEV_KEYS "" CACHE STRING "Development pass keys (list, same form); empty in release builds")
# Release builds (the `release` preset): real keys only, hardened, and the only ones that package.
option(VELMORA_RELEASE "Build a release: needs the production key, takes no development key" OFF)
set(VELMORA_WEB_APP_URL "https://app.velmora.example" CACHE STRING "Address of the web application")
# The tray front end is built wherever Qt 6 Widgets is found; OFF builds run headless only.
find_package(Qt6 6.2 QUIET COMPONENTS Widgets)
if(Qt6Widgets_FOUND)
    set(velmoraGuiDefault ON)
else()
    set(velmoraGuiDefault OFF)
endif()
option(VELMORA_GUI "Build the Qt tray front end" ${velmoraGuiDefault})

list(LENGTH VELMORA_BUILTIN_ORIGINS velmoraOriginCount)
if(NOT velmoraOriginCount EQUAL 3)
    message(FATAL_ERROR "VELMORA_BUILTIN_ORIGINS must hold exactly three origins")
endif()
