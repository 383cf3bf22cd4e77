#pragma once

/// The window's content, and the views in it. Each draws what the models hold and keeps none of it.

#include "ui/AddListSheet.h"
#include "ui/BlockedPopover.h"
#include "ui/BrowserView.h"
#include "ui/ContentView.h"
#include "ui/CustomRulesView.h"
#include "ui/ListsView.h"
#include "ui/NoticeBar.h"
#include "ui/RulesView.h"
#include "ui/SafariNote.h"
#include "ui/TesterView.h"
#include "ui/WebViewHost.h"
