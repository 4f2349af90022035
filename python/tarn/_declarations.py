"""Generated from include/tarn/oneapi.h. Do not edit."""

DECLARATIONS = """
typedef enum TarnStatus {
    status_ok = 0,            
    status_cancelled = 1,     
    status_out_of_memory = 2, 
    status_failed = 3         
} TarnStatus;
typedef struct HostCallbacks {
    void (*progress)(double percent);
    bool (*is_cancelled)(void);
    void (*log_info)(const char* text);
    void (*reserved_1)(void);
    void (*log_error)(const char* text);
    void (*acquire_memory)(size_t bytes);
    void (*release_memory)(size_t bytes);
    void (*reserved_2)(void);
} HostCallbacks;
typedef struct TarnInt2 {
    int32_t x;
    int32_t y;
} TarnInt2;
typedef struct TarnFloat2 {
    float x;
    float y;
} TarnFloat2;
typedef struct TarnFloat3 {
    float x;
    float y;
    float z;
    float padding;
} TarnFloat3;
typedef struct TarnUint3 {
    uint32_t x;
    uint32_t y;
    uint32_t z;
    uint32_t padding;
} TarnUint3;
typedef enum TarnDeviceKind {
    tarn_device_other = 0,
    tarn_device_native_cpu = 1,     
    tarn_device_cpu = 2,            
    tarn_device_integrated_gpu = 3, 
    tarn_device_discrete_gpu = 4,   
    tarn_device_accelerator = 5     
} TarnDeviceKind;
typedef struct DeviceInfo {
    char* reserved_text; 
    int32_t kind;        
    char* backend;       
    char* vendor;        
    char* name;          
    char* vendor_id;     
    uint8_t reserved_flag;
    uint8_t needs_driver_update; 
} DeviceInfo;
typedef struct SyclQueue SyclQueue;
void GetDevices(DeviceInfo** devices, int32_t* count);
void FreeDevices(DeviceInfo* devices);
DeviceInfo* GetDeviceInfo(SyclQueue* queue);
void FreeDeviceInfo(DeviceInfo* info);
SyclQueue* CreateSyclQueue(const char* device_id, const HostCallbacks* callbacks);
void DestroySyclQueue(SyclQueue* queue);
typedef struct thermal_shaper_Parameters {
    int32_t width;
    int32_t height;
    float level_divisor;
    float scale_numerator;
    float level_multiplier;
    float blend;
    float rate;
    float detail_gain;
} thermal_shaper_Parameters;
uint32_t ThermalShaper_Process(SyclQueue* queue, float* heights, const float* mask,
                                        const thermal_shaper_Parameters* parameters, const HostCallbacks* callbacks);
typedef struct thermal_Parameters {
    int32_t width;
    int32_t height;
    float duration;
    float erosion_rate;
    float curvature_bias;
    float repose_angle;
    float feature_size;
    float terrain_size;
    float terrain_height;
    float absorption;
    uint8_t use_erosion_mask;    
    uint8_t use_absorption_mask; 
} thermal_Parameters;
uint32_t ThermalSimulation(SyclQueue* queue, float* heights, float* depth, float* wear,
                                    const float* erosion_mask, const float* absorption_mask,
                                    const thermal_Parameters* parameters, const HostCallbacks* callbacks);
typedef struct parallel_erosion_Resolution {
    uint32_t width; 
    uint32_t height;
} parallel_erosion_Resolution;
typedef struct parallel_erosion_Parameters {
    parallel_erosion_Resolution Resolution;
    float terrain_size;
    float terrain_height;
    float feature_size;
    float reserved_1;
    float iterations;
    float reserved_2;
    uint32_t seed;
    float erosion_strength;
    float reserved_3;
    float shaping_strength;
    float shaping_sharpness;
    float shaping_detail;
    float fill_slope_scale;
    float fill_angle;
    float plain_deposition;
    float plain_angle;
    float terrace_deposition;
    float terrace_angle;
    float constant_capacity;
} parallel_erosion_Parameters;
uint32_t ParallelErosionSimulation(SyclQueue* queue, float* height, const float* spawn_map, float* flow,
                                            float* sediment, const void* reserved, float* wear,
                                            const parallel_erosion_Parameters* parameters,
                                            const HostCallbacks* callbacks);
typedef struct arrakis_Parameters {
    int32_t width;
    int32_t height;
    float duration;
    float reserved_1;
    float reserved_2;
    float repose_angle;
    float feature_size;
    float terrain_size;
    float terrain_height;
} arrakis_Parameters;
uint32_t DuneSimulation(SyclQueue* queue, float* height, float* sand, float* wind_trace,
                                 const arrakis_Parameters* parameters, const HostCallbacks* callbacks);
typedef struct debris_Parameters {
    uint32_t resolution; 
    float terrain_size;
    float terrain_height;
    uint32_t count; 
    float max_size; 
    float min_size; 
    float friction;
    float restitution;
    float reserved;
    uint8_t draw_unmoved;  
    uint32_t favour_small; 
    uint32_t seed;         
} debris_Parameters;
uint32_t DebrisSimulation(SyclQueue* queue, float* height, float* rock_id, float* coverage, float* speed,
                                   const debris_Parameters* parameters, const HostCallbacks* callbacks);
typedef struct flow_Parameters {
    int32_t width;
    int32_t height;
    float flow_length;
    float spread;
    uint32_t seed;
} flow_Parameters;
uint32_t FlowSimulation(SyclQueue* queue, const float* heights, float* flow_map, const float* mask,
                                 const flow_Parameters* parameters, const HostCallbacks* callbacks);
typedef struct color_transport_Parameters {
    int32_t width;
    int32_t height;
    float flow_length;
    float persistence;
    float blend;
    float spread;
    float transport;
    uint8_t straight_trails;
    uint32_t seed;
} color_transport_Parameters;
uint32_t ColorTransportSimulation(SyclQueue* queue, const float* heights, float* red, float* green,
                                           float* blue, const float* mask, const float* length_map,
                                           const color_transport_Parameters* parameters,
                                           const HostCallbacks* callbacks);
typedef struct lighting_Resolution {
    int32_t width;
    int32_t height;
} lighting_Resolution;
typedef struct lighting_Parameters {
    lighting_Resolution resolution; 
    float terrain_size;
    float terrain_height;
    float sun_direction[3];
    int32_t sun_rings;
    float sun_diameter; 
    uint32_t hybrid_ao; 
    int32_t ao_subdivisions;
    int32_t hybrid_ao_subdivisions;
    int32_t hybrid_ao_levels;
    float exposure; 
    float sun_intensity;
    float ambient_intensity;
    float sun_color[3]; 
    float ambient_color[3];
    float albedo;      
    int32_t first_day; 
    int32_t last_day;
    float latitude;            
    float north_offset;        
    float haze;                
    uint8_t direct_light;      
    uint8_t ambient_light;     
    uint8_t shadows;           
    uint8_t ambient_occlusion; 
    uint8_t ao_supplied;       
} lighting_Parameters;
uint32_t Shade(SyclQueue* queue, const float* heights, float* diffuse, float* shadow, float* ao, float* red,
                        float* green, float* blue, const float* albedo_red, const float* albedo_green,
                        const float* albedo_blue, const lighting_Parameters* parameters,
                        const HostCallbacks* callbacks);
uint32_t SunLightIntegral(SyclQueue* queue, const float* heights, float* result,
                                   const lighting_Parameters* parameters);
typedef struct mesh_rasterizer_Parameters {
    TarnInt2 resolution;  
    uint32_t point_count; 
    float vertical_scale; 
    float rotation_x;     
    float rotation_y;
    float rotation_z;
    float scale;                     
    float offset_x;                  
    float offset_y;                  
    float offset_z;                  
    float displacement_amount;       
    float displacement_bias;         
    uint8_t horizontal_displacement; 
    uint8_t rest_on_floor;
    uint8_t supersample; 
} mesh_rasterizer_Parameters;
typedef struct mesh_rasterizer_MeshView {
    const TarnFloat3* vertices;
    uint32_t vertex_count;
    const TarnUint3* triangles; 
    uint32_t triangle_count;
    const TarnFloat3* normals; 
} mesh_rasterizer_MeshView;
uint32_t MeshRasterizer_RenderMesh(SyclQueue* queue, const mesh_rasterizer_MeshView* mesh, float* height,
                                            float* noise, mesh_rasterizer_Parameters* parameters,
                                            const HostCallbacks* callbacks);
uint32_t MeshRasterizer_RenderMeshWithTriplanarDisplacement(
    SyclQueue* queue, const mesh_rasterizer_MeshView* mesh, float* height, const float* xy_map, const float* xz_map,
    const float* yz_map, mesh_rasterizer_Parameters* parameters, const HostCallbacks* callbacks);
uint32_t MeshRasterizer_RenderPointCloud(SyclQueue* queue, const float* points, float* height, float* noise,
                                                  float* red, float* green, float* blue,
                                                  const mesh_rasterizer_Parameters* parameters,
                                                  const HostCallbacks* callbacks);
uint32_t MeshRasterizer_ComputeTangentSpaceNormals(SyclQueue* queue, const mesh_rasterizer_MeshView* mesh,
                                                            const float* height, float* red, float* green, float* blue,
                                                            TarnFloat2* hit_positions,
                                                            const mesh_rasterizer_Parameters* parameters,
                                                            const HostCallbacks* callbacks);
typedef struct stamp_instancer_Instance {
    TarnFloat2 position; 
    uint32_t stamp;      
    float height;        
} stamp_instancer_Instance;
typedef struct stamp_instancer_Parameters {
    int32_t width;
    int32_t height;
    int32_t stamps_width; 
    int32_t stamps_height;
    int32_t stamp_width; 
    int32_t stamp_height;
    int32_t instance_count;
} stamp_instancer_Parameters;
uint32_t StampInstancer_Populate(SyclQueue* queue, float* heights, float* ids, const float* stamps,
                                          stamp_instancer_Instance* instances,
                                          const stamp_instancer_Parameters* parameters, const HostCallbacks* callbacks);
typedef struct median_filter_Parameters {
    uint32_t resolution; 
    int32_t radius;      
    uint32_t iterations; 
} median_filter_Parameters;
uint32_t MedianFilter(SyclQueue* queue, float* data, const median_filter_Parameters* parameters);
typedef struct Cellular3D_Parameters {
    int32_t grid_width;
    int32_t grid_height;
    float cell_density; 
    float gap;          
    float extent_x;     
    float extent_y;     
    float extent_z;     
    float jitter_x;     
    float jitter_y;
    float jitter_z;
    uint32_t seed; 
    float z_unit;  
    float z_range;
    uint32_t hash_variant; 
} Cellular3D_Parameters;
uint32_t Cellular3D_Render(SyclQueue* queue, float* height, const float* gap_factor, float* random,
                                    Cellular3D_Parameters* parameters, const HostCallbacks* callbacks);
"""

LAYOUT = {'Cellular3D_Parameters': (56,
                           {'cell_density': 8,
                            'extent_x': 16,
                            'extent_y': 20,
                            'extent_z': 24,
                            'gap': 12,
                            'grid_height': 4,
                            'grid_width': 0,
                            'hash_variant': 52,
                            'jitter_x': 28,
                            'jitter_y': 32,
                            'jitter_z': 36,
                            'seed': 40,
                            'z_range': 48,
                            'z_unit': 44}),
 'DeviceInfo': (56,
                {'backend': 16,
                 'kind': 8,
                 'name': 32,
                 'needs_driver_update': 49,
                 'reserved_flag': 48,
                 'reserved_text': 0,
                 'vendor': 24,
                 'vendor_id': 40}),
 'HostCallbacks': (64,
                   {'acquire_memory': 40,
                    'is_cancelled': 8,
                    'log_error': 32,
                    'log_info': 16,
                    'progress': 0,
                    'release_memory': 48,
                    'reserved_1': 24,
                    'reserved_2': 56}),
 'TarnFloat2': (8, {'x': 0, 'y': 4}),
 'TarnFloat3': (16, {'padding': 12, 'x': 0, 'y': 4, 'z': 8}),
 'TarnInt2': (8, {'x': 0, 'y': 4}),
 'TarnUint3': (16, {'padding': 12, 'x': 0, 'y': 4, 'z': 8}),
 'arrakis_Parameters': (36,
                        {'duration': 8,
                         'feature_size': 24,
                         'height': 4,
                         'repose_angle': 20,
                         'reserved_1': 12,
                         'reserved_2': 16,
                         'terrain_height': 32,
                         'terrain_size': 28,
                         'width': 0}),
 'color_transport_Parameters': (36,
                                {'blend': 16,
                                 'flow_length': 8,
                                 'height': 4,
                                 'persistence': 12,
                                 'seed': 32,
                                 'spread': 20,
                                 'straight_trails': 28,
                                 'transport': 24,
                                 'width': 0}),
 'debris_Parameters': (48,
                       {'count': 12,
                        'draw_unmoved': 36,
                        'favour_small': 40,
                        'friction': 24,
                        'max_size': 16,
                        'min_size': 20,
                        'reserved': 32,
                        'resolution': 0,
                        'restitution': 28,
                        'seed': 44,
                        'terrain_height': 8,
                        'terrain_size': 4}),
 'flow_Parameters': (20, {'flow_length': 8, 'height': 4, 'seed': 16, 'spread': 12, 'width': 0}),
 'lighting_Parameters': (120,
                         {'albedo': 88,
                          'ambient_color': 76,
                          'ambient_intensity': 60,
                          'ambient_light': 113,
                          'ambient_occlusion': 115,
                          'ao_subdivisions': 40,
                          'ao_supplied': 116,
                          'direct_light': 112,
                          'exposure': 52,
                          'first_day': 92,
                          'haze': 108,
                          'hybrid_ao': 36,
                          'hybrid_ao_levels': 48,
                          'hybrid_ao_subdivisions': 44,
                          'last_day': 96,
                          'latitude': 100,
                          'north_offset': 104,
                          'resolution': 0,
                          'shadows': 114,
                          'sun_color': 64,
                          'sun_diameter': 32,
                          'sun_direction': 16,
                          'sun_intensity': 56,
                          'sun_rings': 28,
                          'terrain_height': 12,
                          'terrain_size': 8}),
 'lighting_Resolution': (8, {'height': 4, 'width': 0}),
 'median_filter_Parameters': (12, {'iterations': 8, 'radius': 4, 'resolution': 0}),
 'mesh_rasterizer_MeshView': (40,
                              {'normals': 32,
                               'triangle_count': 24,
                               'triangles': 16,
                               'vertex_count': 8,
                               'vertices': 0}),
 'mesh_rasterizer_Parameters': (56,
                                {'displacement_amount': 44,
                                 'displacement_bias': 48,
                                 'horizontal_displacement': 52,
                                 'offset_x': 32,
                                 'offset_y': 36,
                                 'offset_z': 40,
                                 'point_count': 8,
                                 'resolution': 0,
                                 'rest_on_floor': 53,
                                 'rotation_x': 16,
                                 'rotation_y': 20,
                                 'rotation_z': 24,
                                 'scale': 28,
                                 'supersample': 54,
                                 'vertical_scale': 12}),
 'parallel_erosion_Parameters': (84,
                                 {'Resolution': 0,
                                  'constant_capacity': 80,
                                  'erosion_strength': 36,
                                  'feature_size': 16,
                                  'fill_angle': 60,
                                  'fill_slope_scale': 56,
                                  'iterations': 24,
                                  'plain_angle': 68,
                                  'plain_deposition': 64,
                                  'reserved_1': 20,
                                  'reserved_2': 28,
                                  'reserved_3': 40,
                                  'seed': 32,
                                  'shaping_detail': 52,
                                  'shaping_sharpness': 48,
                                  'shaping_strength': 44,
                                  'terrace_angle': 76,
                                  'terrace_deposition': 72,
                                  'terrain_height': 12,
                                  'terrain_size': 8}),
 'parallel_erosion_Resolution': (8, {'height': 4, 'width': 0}),
 'stamp_instancer_Instance': (16, {'height': 12, 'position': 0, 'stamp': 8}),
 'stamp_instancer_Parameters': (28,
                                {'height': 4,
                                 'instance_count': 24,
                                 'stamp_height': 20,
                                 'stamp_width': 16,
                                 'stamps_height': 12,
                                 'stamps_width': 8,
                                 'width': 0}),
 'thermal_Parameters': (44,
                        {'absorption': 36,
                         'curvature_bias': 16,
                         'duration': 8,
                         'erosion_rate': 12,
                         'feature_size': 24,
                         'height': 4,
                         'repose_angle': 20,
                         'terrain_height': 32,
                         'terrain_size': 28,
                         'use_absorption_mask': 41,
                         'use_erosion_mask': 40,
                         'width': 0}),
 'thermal_shaper_Parameters': (32,
                               {'blend': 20,
                                'detail_gain': 28,
                                'height': 4,
                                'level_divisor': 8,
                                'level_multiplier': 16,
                                'rate': 24,
                                'scale_numerator': 12,
                                'width': 0})}
