#pragma once

/// The sample of the configuration, a resource of the service's program.
#define CORVEL_SAMPLE_CONFIGURATION 100
