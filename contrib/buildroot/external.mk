# What this tree adds to Buildroot's packages.
include $(sort $(wildcard $(BR2_EXTERNAL_CV_PATH)/package/*/*.mk))
