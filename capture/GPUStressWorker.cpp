#include "capture/GPUStressWorker.h"

#include <shaderc/shaderc.h>
#include <vulkan/vulkan.h>

#include <algorithm>
#include <cstring>
#include <string>

namespace kelvo {

const char* const GPUStressWorker::kKernelSource = R"glsl(#version 450
layout(local_size_x_id = 0) in;
layout(std430, binding = 0) buffer Data { float data[]; };

void main() {
    uint id = gl_GlobalInvocationID.x;
    float x = data[id];
    for (uint i = 0u; i < 1024u; ++i) {
        x = sin(x) * cos(x) + sqrt(abs(x) + 0.0001);
    }
    data[id] = x;
})glsl";

struct GPUStressWorker::Vk {
    VkInstance instance = VK_NULL_HANDLE;
    VkPhysicalDevice physical = VK_NULL_HANDLE;
    VkDevice device = VK_NULL_HANDLE;
    VkQueue queue = VK_NULL_HANDLE;
    std::uint32_t queueFamily = 0;
    VkBuffer buffer = VK_NULL_HANDLE;
    VkDeviceMemory memory = VK_NULL_HANDLE;
    void* mapped = nullptr;
    VkShaderModule shader = VK_NULL_HANDLE;
    VkDescriptorSetLayout setLayout = VK_NULL_HANDLE;
    VkPipelineLayout pipelineLayout = VK_NULL_HANDLE;
    VkPipeline pipeline = VK_NULL_HANDLE;
    VkDescriptorPool descriptorPool = VK_NULL_HANDLE;
    VkDescriptorSet descriptorSet = VK_NULL_HANDLE;
    VkCommandPool commandPool = VK_NULL_HANDLE;
    VkCommandBuffer commandBuffer = VK_NULL_HANDLE;
    VkFence fence = VK_NULL_HANDLE;
    std::uint32_t workgroupSize = 64;
    char deviceName[VK_MAX_PHYSICAL_DEVICE_NAME_SIZE] = {};

    ~Vk() {
        if (device) {
            vkDeviceWaitIdle(device);
            if (fence) vkDestroyFence(device, fence, nullptr);
            if (commandPool) vkDestroyCommandPool(device, commandPool, nullptr);
            if (descriptorPool) vkDestroyDescriptorPool(device, descriptorPool, nullptr);
            if (pipeline) vkDestroyPipeline(device, pipeline, nullptr);
            if (pipelineLayout) vkDestroyPipelineLayout(device, pipelineLayout, nullptr);
            if (setLayout) vkDestroyDescriptorSetLayout(device, setLayout, nullptr);
            if (shader) vkDestroyShaderModule(device, shader, nullptr);
            if (mapped) vkUnmapMemory(device, memory);
            if (buffer) vkDestroyBuffer(device, buffer, nullptr);
            if (memory) vkFreeMemory(device, memory, nullptr);
            vkDestroyDevice(device, nullptr);
        }
        if (instance) vkDestroyInstance(instance, nullptr);
    }

    bool createInstance();
    bool pickDevice();
    bool createDevice();
    bool createBuffer();
    bool createPipeline();
    bool createCommands();
};

namespace {

std::vector<std::uint32_t> compileKernel() {
    shaderc_compiler_t compiler = shaderc_compiler_initialize();
    if (!compiler) return {};
    shaderc_compile_options_t options = shaderc_compile_options_initialize();
    if (options)
        shaderc_compile_options_set_optimization_level(options,
                                                       shaderc_optimization_level_performance);
    shaderc_compilation_result_t result = shaderc_compile_into_spv(
        compiler, GPUStressWorker::kKernelSource, std::strlen(GPUStressWorker::kKernelSource),
        shaderc_compute_shader, "spinKernel.comp", "main", options);
    std::vector<std::uint32_t> words;
    if (result &&
        shaderc_result_get_compilation_status(result) == shaderc_compilation_status_success) {
        const std::size_t bytes = shaderc_result_get_length(result);
        words.resize(bytes / sizeof(std::uint32_t));
        std::memcpy(words.data(), shaderc_result_get_bytes(result),
                    words.size() * sizeof(words[0]));
    }
    if (result) shaderc_result_release(result);
    if (options) shaderc_compile_options_release(options);
    shaderc_compiler_release(compiler);
    return words;
}

std::uint32_t nextPowerOfTwo(std::uint32_t v) {
    std::uint32_t p = 1;
    while (p < v && p < (1u << 30)) p <<= 1;
    return p;
}

}  // namespace

bool GPUStressWorker::Vk::createInstance() {
    VkApplicationInfo app{};
    app.sType = VK_STRUCTURE_TYPE_APPLICATION_INFO;
    app.pApplicationName = "Kelvo";
    app.apiVersion = VK_API_VERSION_1_1;
    VkInstanceCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_INSTANCE_CREATE_INFO;
    info.pApplicationInfo = &app;
    return vkCreateInstance(&info, nullptr, &instance) == VK_SUCCESS;
}

bool GPUStressWorker::Vk::pickDevice() {
    std::uint32_t count = 0;
    if (vkEnumeratePhysicalDevices(instance, &count, nullptr) != VK_SUCCESS || count == 0)
        return false;
    std::vector<VkPhysicalDevice> devices(count);
    if (vkEnumeratePhysicalDevices(instance, &count, devices.data()) != VK_SUCCESS) return false;
    // The default device: a real GPU when there is one, else whatever the loader offers (a
    // software rasteriser in CI).
    int bestScore = -1;
    for (auto candidate : devices) {
        VkPhysicalDeviceProperties props;
        vkGetPhysicalDeviceProperties(candidate, &props);
        std::uint32_t familyCount = 0;
        vkGetPhysicalDeviceQueueFamilyProperties(candidate, &familyCount, nullptr);
        std::vector<VkQueueFamilyProperties> families(familyCount);
        vkGetPhysicalDeviceQueueFamilyProperties(candidate, &familyCount, families.data());
        for (std::uint32_t i = 0; i < familyCount; ++i) {
            if (!(families[i].queueFlags & VK_QUEUE_COMPUTE_BIT)) continue;
            int score = props.deviceType == VK_PHYSICAL_DEVICE_TYPE_DISCRETE_GPU     ? 3
                        : props.deviceType == VK_PHYSICAL_DEVICE_TYPE_INTEGRATED_GPU ? 2
                        : props.deviceType == VK_PHYSICAL_DEVICE_TYPE_CPU            ? 0
                                                                                     : 1;
            if (score > bestScore) {
                bestScore = score;
                physical = candidate;
                queueFamily = i;
                std::memcpy(deviceName, props.deviceName, sizeof deviceName);
                deviceName[sizeof deviceName - 1] = 0;
            }
            break;
        }
    }
    return physical != VK_NULL_HANDLE;
}

bool GPUStressWorker::Vk::createDevice() {
    const float priority = 1.0f;
    VkDeviceQueueCreateInfo queueInfo{};
    queueInfo.sType = VK_STRUCTURE_TYPE_DEVICE_QUEUE_CREATE_INFO;
    queueInfo.queueFamilyIndex = queueFamily;
    queueInfo.queueCount = 1;
    queueInfo.pQueuePriorities = &priority;
    VkDeviceCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_DEVICE_CREATE_INFO;
    info.queueCreateInfoCount = 1;
    info.pQueueCreateInfos = &queueInfo;
    if (vkCreateDevice(physical, &info, nullptr, &device) != VK_SUCCESS) return false;
    vkGetDeviceQueue(device, queueFamily, 0, &queue);
    return queue != VK_NULL_HANDLE;
}

bool GPUStressWorker::Vk::createBuffer() {
    const VkDeviceSize size = VkDeviceSize(kElementCount) * sizeof(float);
    VkBufferCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_BUFFER_CREATE_INFO;
    info.size = size;
    info.usage = VK_BUFFER_USAGE_STORAGE_BUFFER_BIT;
    info.sharingMode = VK_SHARING_MODE_EXCLUSIVE;
    if (vkCreateBuffer(device, &info, nullptr, &buffer) != VK_SUCCESS) return false;
    VkMemoryRequirements needs;
    vkGetBufferMemoryRequirements(device, buffer, &needs);
    VkPhysicalDeviceMemoryProperties memoryProps;
    vkGetPhysicalDeviceMemoryProperties(physical, &memoryProps);
    // Shared (host-visible, coherent) memory, so the host fills and reads it directly.
    const VkMemoryPropertyFlags wanted =
        VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT | VK_MEMORY_PROPERTY_HOST_COHERENT_BIT;
    std::uint32_t type = UINT32_MAX;
    for (std::uint32_t i = 0; i < memoryProps.memoryTypeCount; ++i)
        if ((needs.memoryTypeBits & (1u << i)) &&
            (memoryProps.memoryTypes[i].propertyFlags & wanted) == wanted) {
            type = i;
            break;
        }
    if (type == UINT32_MAX) return false;
    VkMemoryAllocateInfo alloc{};
    alloc.sType = VK_STRUCTURE_TYPE_MEMORY_ALLOCATE_INFO;
    alloc.allocationSize = needs.size;
    alloc.memoryTypeIndex = type;
    if (vkAllocateMemory(device, &alloc, nullptr, &memory) != VK_SUCCESS) return false;
    if (vkBindBufferMemory(device, buffer, memory, 0) != VK_SUCCESS) return false;
    if (vkMapMemory(device, memory, 0, size, 0, &mapped) != VK_SUCCESS) {
        mapped = nullptr;
        return false;
    }
    auto* data = static_cast<float*>(mapped);
    for (std::uint32_t i = 0; i < kElementCount; ++i) data[i] = initialValue(i);
    return true;
}

bool GPUStressWorker::Vk::createPipeline() {
    const auto spirv = compileKernel();
    if (spirv.empty()) return false;
    VkShaderModuleCreateInfo moduleInfo{};
    moduleInfo.sType = VK_STRUCTURE_TYPE_SHADER_MODULE_CREATE_INFO;
    moduleInfo.codeSize = spirv.size() * sizeof(std::uint32_t);
    moduleInfo.pCode = spirv.data();
    if (vkCreateShaderModule(device, &moduleInfo, nullptr, &shader) != VK_SUCCESS) return false;

    VkDescriptorSetLayoutBinding binding{};
    binding.binding = 0;
    binding.descriptorType = VK_DESCRIPTOR_TYPE_STORAGE_BUFFER;
    binding.descriptorCount = 1;
    binding.stageFlags = VK_SHADER_STAGE_COMPUTE_BIT;
    VkDescriptorSetLayoutCreateInfo setInfo{};
    setInfo.sType = VK_STRUCTURE_TYPE_DESCRIPTOR_SET_LAYOUT_CREATE_INFO;
    setInfo.bindingCount = 1;
    setInfo.pBindings = &binding;
    if (vkCreateDescriptorSetLayout(device, &setInfo, nullptr, &setLayout) != VK_SUCCESS)
        return false;
    VkPipelineLayoutCreateInfo layoutInfo{};
    layoutInfo.sType = VK_STRUCTURE_TYPE_PIPELINE_LAYOUT_CREATE_INFO;
    layoutInfo.setLayoutCount = 1;
    layoutInfo.pSetLayouts = &setLayout;
    if (vkCreatePipelineLayout(device, &layoutInfo, nullptr, &pipelineLayout) != VK_SUCCESS)
        return false;

    // Workgroup width: the device's subgroup width, the counterpart of a pipeline's execution
    // width, widened to a power of two when the grid would otherwise exceed the device's
    // workgroup-count limit.
    VkPhysicalDeviceSubgroupProperties subgroup{};
    subgroup.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_SUBGROUP_PROPERTIES;
    VkPhysicalDeviceProperties2 props{};
    props.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_PROPERTIES_2;
    props.pNext = &subgroup;
    vkGetPhysicalDeviceProperties2(physical, &props);
    const auto& limits = props.properties.limits;
    const std::uint32_t maxGroups = std::max<std::uint32_t>(1, limits.maxComputeWorkGroupCount[0]);
    std::uint32_t width = nextPowerOfTwo(std::max<std::uint32_t>(subgroup.subgroupSize, 1));
    width = std::max(width, nextPowerOfTwo((kElementCount + maxGroups - 1) / maxGroups));
    width = std::min({width, limits.maxComputeWorkGroupSize[0],
                      limits.maxComputeWorkGroupInvocations, kElementCount});
    if (width == 0 || kElementCount % width != 0 || kElementCount / width > maxGroups) return false;
    workgroupSize = width;

    VkSpecializationMapEntry entry{0, 0, sizeof(std::uint32_t)};
    VkSpecializationInfo specialization{1, &entry, sizeof(std::uint32_t), &workgroupSize};
    VkComputePipelineCreateInfo pipelineInfo{};
    pipelineInfo.sType = VK_STRUCTURE_TYPE_COMPUTE_PIPELINE_CREATE_INFO;
    pipelineInfo.stage.sType = VK_STRUCTURE_TYPE_PIPELINE_SHADER_STAGE_CREATE_INFO;
    pipelineInfo.stage.stage = VK_SHADER_STAGE_COMPUTE_BIT;
    pipelineInfo.stage.module = shader;
    pipelineInfo.stage.pName = "main";
    pipelineInfo.stage.pSpecializationInfo = &specialization;
    pipelineInfo.layout = pipelineLayout;
    if (vkCreateComputePipelines(device, VK_NULL_HANDLE, 1, &pipelineInfo, nullptr, &pipeline) !=
        VK_SUCCESS)
        return false;

    VkDescriptorPoolSize poolSize{VK_DESCRIPTOR_TYPE_STORAGE_BUFFER, 1};
    VkDescriptorPoolCreateInfo poolInfo{};
    poolInfo.sType = VK_STRUCTURE_TYPE_DESCRIPTOR_POOL_CREATE_INFO;
    poolInfo.maxSets = 1;
    poolInfo.poolSizeCount = 1;
    poolInfo.pPoolSizes = &poolSize;
    if (vkCreateDescriptorPool(device, &poolInfo, nullptr, &descriptorPool) != VK_SUCCESS)
        return false;
    VkDescriptorSetAllocateInfo allocInfo{};
    allocInfo.sType = VK_STRUCTURE_TYPE_DESCRIPTOR_SET_ALLOCATE_INFO;
    allocInfo.descriptorPool = descriptorPool;
    allocInfo.descriptorSetCount = 1;
    allocInfo.pSetLayouts = &setLayout;
    if (vkAllocateDescriptorSets(device, &allocInfo, &descriptorSet) != VK_SUCCESS) return false;
    VkDescriptorBufferInfo bufferInfo{buffer, 0, VK_WHOLE_SIZE};
    VkWriteDescriptorSet write{};
    write.sType = VK_STRUCTURE_TYPE_WRITE_DESCRIPTOR_SET;
    write.dstSet = descriptorSet;
    write.dstBinding = 0;
    write.descriptorCount = 1;
    write.descriptorType = VK_DESCRIPTOR_TYPE_STORAGE_BUFFER;
    write.pBufferInfo = &bufferInfo;
    vkUpdateDescriptorSets(device, 1, &write, 0, nullptr);
    return true;
}

bool GPUStressWorker::Vk::createCommands() {
    VkCommandPoolCreateInfo poolInfo{};
    poolInfo.sType = VK_STRUCTURE_TYPE_COMMAND_POOL_CREATE_INFO;
    poolInfo.queueFamilyIndex = queueFamily;
    if (vkCreateCommandPool(device, &poolInfo, nullptr, &commandPool) != VK_SUCCESS) return false;
    VkCommandBufferAllocateInfo allocInfo{};
    allocInfo.sType = VK_STRUCTURE_TYPE_COMMAND_BUFFER_ALLOCATE_INFO;
    allocInfo.commandPool = commandPool;
    allocInfo.level = VK_COMMAND_BUFFER_LEVEL_PRIMARY;
    allocInfo.commandBufferCount = 1;
    if (vkAllocateCommandBuffers(device, &allocInfo, &commandBuffer) != VK_SUCCESS) return false;
    // The same pass every time: record it once and resubmit it.
    VkCommandBufferBeginInfo begin{};
    begin.sType = VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO;
    if (vkBeginCommandBuffer(commandBuffer, &begin) != VK_SUCCESS) return false;
    vkCmdBindPipeline(commandBuffer, VK_PIPELINE_BIND_POINT_COMPUTE, pipeline);
    vkCmdBindDescriptorSets(commandBuffer, VK_PIPELINE_BIND_POINT_COMPUTE, pipelineLayout, 0, 1,
                            &descriptorSet, 0, nullptr);
    vkCmdDispatch(commandBuffer, kElementCount / workgroupSize, 1, 1);
    // Make the shader's writes visible to the host once the fence signals.
    VkMemoryBarrier barrier{};
    barrier.sType = VK_STRUCTURE_TYPE_MEMORY_BARRIER;
    barrier.srcAccessMask = VK_ACCESS_SHADER_WRITE_BIT;
    barrier.dstAccessMask = VK_ACCESS_HOST_READ_BIT | VK_ACCESS_SHADER_READ_BIT;
    vkCmdPipelineBarrier(commandBuffer, VK_PIPELINE_STAGE_COMPUTE_SHADER_BIT,
                         VK_PIPELINE_STAGE_HOST_BIT | VK_PIPELINE_STAGE_COMPUTE_SHADER_BIT, 0, 1,
                         &barrier, 0, nullptr, 0, nullptr);
    if (vkEndCommandBuffer(commandBuffer) != VK_SUCCESS) return false;
    VkFenceCreateInfo fenceInfo{};
    fenceInfo.sType = VK_STRUCTURE_TYPE_FENCE_CREATE_INFO;
    return vkCreateFence(device, &fenceInfo, nullptr, &fence) == VK_SUCCESS;
}

std::unique_ptr<GPUStressWorker> GPUStressWorker::create() {
    auto vk = std::make_unique<Vk>();
    if (!vk->createInstance() || !vk->pickDevice() || !vk->createDevice() || !vk->createBuffer() ||
        !vk->createPipeline() || !vk->createCommands())
        return nullptr;
    return std::unique_ptr<GPUStressWorker>(new GPUStressWorker(std::move(vk)));
}

GPUStressWorker::GPUStressWorker(std::unique_ptr<Vk> vk) : vk_(std::move(vk)) {}

GPUStressWorker::~GPUStressWorker() = default;

bool GPUStressWorker::runPass() {
    if (vkResetFences(vk_->device, 1, &vk_->fence) != VK_SUCCESS) return false;
    VkSubmitInfo submit{};
    submit.sType = VK_STRUCTURE_TYPE_SUBMIT_INFO;
    submit.commandBufferCount = 1;
    submit.pCommandBuffers = &vk_->commandBuffer;
    if (vkQueueSubmit(vk_->queue, 1, &submit, vk_->fence) != VK_SUCCESS) return false;
    // One submission in flight: the next pass starts only after this one has finished.
    return vkWaitForFences(vk_->device, 1, &vk_->fence, VK_TRUE, UINT64_MAX) == VK_SUCCESS;
}

std::vector<float> GPUStressWorker::contents() const {
    const auto* data = static_cast<const float*>(vk_->mapped);
    return std::vector<float>(data, data + kElementCount);
}

std::uint32_t GPUStressWorker::workgroupSize() const {
    return vk_->workgroupSize;
}

const char* GPUStressWorker::deviceName() const {
    return vk_->deviceName;
}

}  // namespace kelvo
