// The whole Tarn API in one include.
#pragma once

#include "tarn/Buffer.h"
#include "tarn/Cache.h"
#include "tarn/CacheFile.h"
#include "tarn/CacheKey.h"
#include "tarn/Cacheable.h"
#include "tarn/CacheableFactory.h"
#include "tarn/CacheableReceiver.h"
#include "tarn/Config.h"
#include "tarn/Exceptions.h"
#include "tarn/Export.h"
#include "tarn/Serialize.h"
#include "tarn/SharedTier.h"
#include "tarn/Statistics.h"
#include "tarn/TierConfig.h"
#include "tarn/Version.h"
